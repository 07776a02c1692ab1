#include "platform/support/Encoding.h"
