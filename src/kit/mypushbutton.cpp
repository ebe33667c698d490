#include "kit/mypushbutton.h"
