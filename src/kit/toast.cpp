#include "kit/toast.h"
