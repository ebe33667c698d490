#include "kit/mymsgbox.h"
