#include "platform/support/Json.h"
