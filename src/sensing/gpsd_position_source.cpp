#include "sensing/gpsd_position_source.h"
