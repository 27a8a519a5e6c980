// The earlier place of support/random.h.
#pragma once

#include "support/random.h"
