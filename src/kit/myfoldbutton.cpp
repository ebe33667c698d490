#include "kit/myfoldbutton.h"
