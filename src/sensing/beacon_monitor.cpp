#include "sensing/beacon_monitor.h"
