// Who is who inside the simulated stream class: the registration each
// minidriver handed over in DriverEntry, and which adapter owns a device
// extension (the key every notification from a minidriver carries).
#pragma once

#include <strmini.h>

#include <optional>

namespace winsim {

class SrbRegistry;

void RememberRegistration(PDRIVER_OBJECT driver, const HW_INITIALIZATION_DATA& data);
std::optional<HW_INITIALIZATION_DATA> FindRegistration(PDRIVER_OBJECT driver);
void ForgetRegistration(PDRIVER_OBJECT driver);

void RememberAdapter(PVOID deviceExtension, SrbRegistry* srbs);
SrbRegistry* FindAdapter(PVOID deviceExtension);
void ForgetAdapter(PVOID deviceExtension);

}  // namespace winsim
