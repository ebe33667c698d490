#include "os/os.h"
