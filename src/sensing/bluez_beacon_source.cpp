#include "sensing/bluez_beacon_source.h"
