// The larger kernel header: everything of wdm.h is all this platform needs.
#pragma once
#include "wdm.h"
