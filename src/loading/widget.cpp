#include "loading/widget.h"
