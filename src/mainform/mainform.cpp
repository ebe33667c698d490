#include "mainform/mainform.h"
