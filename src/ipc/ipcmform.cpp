#include "ipc/ipcmform.h"
