#include "tav_interface.h"
