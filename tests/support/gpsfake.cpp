#include "support/gpsfake.h"
