#include "kit/mylineedit.h"
