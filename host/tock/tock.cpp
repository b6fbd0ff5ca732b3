#include "platform/tock.h"
