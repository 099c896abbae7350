#include "sensing/advertisement.h"
