#include "ornixctl/info_command.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "ornixctl/control_values.h"
#include "ornixctl/device_facts.h"
#include "ornixctl/text_table.h"

namespace ornixctl {
namespace {

struct IdentityRegister {
    const char* name;
    ULONG index;
    std::string (*describe)(ULONG value);
};

std::string DescribeSpeed(ULONG v) {
    return v != 0 ? "high speed" : "full speed";
}

std::string DescribeFpgaMode(ULONG v) {
    std::string text = (v & ORNIX_FPGA_CONFIGURED) ? "configured" : "not configured";
    if (v & ORNIX_FPGA_BUSY) {
        text += ", busy";
    }
    return text;
}

std::string DescribeVersion(ULONG v) {
    return std::to_string(v);
}

std::string DescribeEvents(ULONG v) {
    if (v == 0) {
        return "no device events";
    }
    std::string text = "events";
    for (int bit = 0; bit < 32; ++bit) {
        if (v & (1u << bit)) {
            text += " " + std::to_string(bit);
        }
    }
    return text;
}

std::string DescribeOrigin(ULONG v) {
    return "x " + std::to_string(v & 0xFFFF) + ", y " + std::to_string(v >> 16);
}

std::string DescribeSupport0(ULONG v) {
    return (v & 1) ? "8-bit look-up table" : "no optional features";
}

std::string Nothing(ULONG) {
    return "";
}

const IdentityRegister kIdentity[] = {
    {"ORNIX_SPEC_VERSION", ORNIX_SPEC_VERSION, DescribeVersion},
    {"ORNIX_SPEED", ORNIX_SPEED, DescribeSpeed},
    {"ORNIX_FPGA_MODE", ORNIX_FPGA_MODE, DescribeFpgaMode},
    {"ORNIX_FPGA_VERSION", ORNIX_FPGA_VERSION, Nothing},
    {"ORNIX_FORMAT_COUNT", ORNIX_FORMAT_COUNT, DescribeVersion},
    {"ORNIX_INTERRUPT_EVENT_SUPPORT", ORNIX_INTERRUPT_EVENT_SUPPORT, DescribeEvents},
    {"ORNIX_SENSOR_LAYOUT", ORNIX_SENSOR_LAYOUT, Nothing},
    {"ORNIX_SENSOR_ORIGIN", ORNIX_SENSOR_ORIGIN, DescribeOrigin},
    {"ORNIX_SUPPORT0", ORNIX_SUPPORT0, DescribeSupport0},
};

std::string Hex(ULONG value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

}  // namespace

int RunInfo(Session& session, bool json, std::ostream& out) {
    struct Reading {
        const IdentityRegister* reg;
        NTSTATUS status;
        ULONG value;
    };
    std::vector<Reading> readings;
    for (const IdentityRegister& reg : kIdentity) {
        ULONG value = 0;
        // Adapter work happens at passive level, as in the stream class.
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        winsim::RunAtIrql(PASSIVE_LEVEL,
                          [&] { status = OrnixRegRead(session.Device(), reg.index, &value); });
        readings.push_back({&reg, status, value});
    }

    // What the driver reports through its version and bus-information properties.
    std::vector<std::pair<const char*, ControlReading>> properties;
    bool propertiesRead = true;
    for (const char* name : {"version", "bus-info"}) {
        try {
            properties.emplace_back(name, ReadControl(session, FindControl(name)));
        } catch (const std::runtime_error& e) {
            ControlReading failed;
            failed.json["error"] = e.what();
            failed.text = std::string("unavailable: ") + e.what();
            properties.emplace_back(name, std::move(failed));
            propertiesRead = false;
        }
    }

    const nlohmann::ordered_json identity = IdentityJson(session);
    const nlohmann::ordered_json topology = TopologyJson(session);
    if (json) {
        nlohmann::ordered_json doc;
        doc["camera"] = session.ProfileName();
        doc["identity"] = identity;
        doc["topology"] = topology;
        for (auto& [name, reading] : properties) {
            reading.json.erase("name");
            doc[name == std::string("version") ? "version" : "busInfo"] = reading.json;
        }
        doc["registers"] = nlohmann::json::array();
        for (const Reading& r : readings) {
            nlohmann::ordered_json entry;
            entry["name"] = r.reg->name;
            entry["index"] = r.reg->index;
            if (NT_SUCCESS(r.status)) {
                entry["value"] = r.value;
            } else {
                entry["error"] = Hex(static_cast<ULONG>(r.status), 8);
            }
            doc["registers"].push_back(entry);
        }
        out << doc.dump(2) << "\n";
    } else {
        out << "Camera: " << session.ProfileName() << "\n\n";
        PrintIdentity(identity, out);
        out << "\n";
        PrintTopology(topology, out);
        out << "\n";
        for (const auto& [name, reading] : properties) {
            out << (name == std::string("version") ? "Version:  " : "Bus:      ") << reading.text
                << "\n";
        }
        out << "\n";
        TextTable table({"Register", "Index", "Value", "Meaning"});
        for (const Reading& r : readings) {
            if (NT_SUCCESS(r.status)) {
                table.AddRow(
                    {r.reg->name, Hex(r.reg->index, 4), Hex(r.value, 8), r.reg->describe(r.value)});
            } else {
                table.AddRow({r.reg->name, Hex(r.reg->index, 4), "-",
                              "read failed: " + Hex(static_cast<ULONG>(r.status), 8)});
            }
        }
        table.Print(out);
    }
    for (const Reading& r : readings) {
        if (!NT_SUCCESS(r.status)) {
            return 1;
        }
    }
    return propertiesRead ? 0 : 1;
}

}  // namespace ornixctl
