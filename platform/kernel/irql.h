// The IRQL of the calling host thread, as the platform itself sets it.
#pragma once

#include <wdm.h>

namespace winsim::kernel {

// Sets the IRQL without any check: worker threads and resets use it.
void SetCurrentIrql(KIRQL irql);

}  // namespace winsim::kernel
