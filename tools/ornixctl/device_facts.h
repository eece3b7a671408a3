// What `ornixctl info` shows beyond the identity registers: the identity the
// driver keeps (descriptor, serial number, camera id, FPGA) and the topology
// (streams, pipes, event sets), as JSON with stable field names.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>

#include "ornixctl/session.h"

namespace ornixctl {

nlohmann::ordered_json IdentityJson(Session& session);
nlohmann::ordered_json TopologyJson(Session& session);

// The two documents as readable tables.
void PrintIdentity(const nlohmann::ordered_json& identity, std::ostream& out);
void PrintTopology(const nlohmann::ordered_json& topology, std::ostream& out);

}  // namespace ornixctl
