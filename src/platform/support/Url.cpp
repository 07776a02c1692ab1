#include "platform/support/Url.h"
