// Media-specific kernel streaming records (video formats and properties).
// The video records arrive with the format and property work; the base
// records live in ks.h.
#pragma once
#include "ks.h"
