#include "kit/globalstyle.h"
