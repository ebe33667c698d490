#include "app/global.h"
