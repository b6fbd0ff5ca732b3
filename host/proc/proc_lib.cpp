#include "platform/proc_lib.h"
