#include "kit/dpiutil.h"
