#include "sensing/geofence_monitor.h"
