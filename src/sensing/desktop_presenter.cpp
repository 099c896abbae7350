#include "sensing/desktop_presenter.h"
