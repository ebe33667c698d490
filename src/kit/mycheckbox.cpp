#include "kit/mycheckbox.h"
