#include "support/bluez_mock.h"
