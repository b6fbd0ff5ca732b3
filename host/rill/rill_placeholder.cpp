#include "platform/rill.h"
