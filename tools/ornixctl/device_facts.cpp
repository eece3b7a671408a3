#include "ornixctl/device_facts.h"

#include <cstdio>
#include <set>
#include <string>

#include "kernel/kernel.h"
#include "ornixctl/names.h"
#include "ornixctl/text_table.h"

namespace ornixctl {
namespace {

std::string PipeTypeName(USBD_PIPE_TYPE type) {
    switch (type) {
        case UsbdPipeTypeControl:
            return "control";
        case UsbdPipeTypeIsochronous:
            return "isochronous";
        case UsbdPipeTypeBulk:
            return "bulk";
        case UsbdPipeTypeInterrupt:
            return "interrupt";
    }
    return "unknown";
}

// What the driver's pipe map makes of pipe `index` in alternate setting `alt`.
std::string PipeRole(PORNIX_DEVICE_CONTEXT ext, ULONG alt, ULONG index) {
    if (alt == ext->VideoAltSetting) {
        if (index == ext->CapturePipe)
            return "capture";
        if (index == ext->StillPipe)
            return "still";
        if (index == ext->InterruptPipe)
            return "interrupt";
    }
    if (alt == ext->FpgaAltSetting && index == ext->FpgaPipe) {
        return "fpga";
    }
    return "";
}

nlohmann::ordered_json PipeMapJson(PORNIX_DEVICE_CONTEXT ext) {
    nlohmann::ordered_json map;
    auto index = [](ULONG pipe) -> nlohmann::ordered_json {
        return pipe == ORNIX_NO_PIPE ? nlohmann::ordered_json(nullptr)
                                     : nlohmann::ordered_json(pipe);
    };
    map["capture"] = index(ext->CapturePipe);
    map["still"] = index(ext->StillPipe);
    map["fpga"] = index(ext->FpgaPipe);
    map["interrupt"] = index(ext->InterruptPipe);
    map["videoAltSetting"] = ext->VideoAltSetting;
    map["fpgaAltSetting"] = ext->FpgaAltSetting;
    map["currentAltSetting"] = ext->CurrentAltSetting;
    return map;
}

}  // namespace

nlohmann::ordered_json IdentityJson(Session& session) {
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    nlohmann::ordered_json id;
    if (ext->DeviceDescriptor != nullptr) {
        id["vendorId"] = ext->DeviceDescriptor->idVendor;
        id["productId"] = ext->DeviceDescriptor->idProduct;
        id["bcdDevice"] = ext->DeviceDescriptor->bcdDevice;
    }
    // Read as the driver reads it: one string-descriptor request.
    ULONG serial = 0;
    winsim::RunAtIrql(PASSIVE_LEVEL, [&] { serial = OrnixGetSerialNumber(ext); });
    id["serialNumber"] = serial;
    id["cameraId"] = ext->CameraId;
    ULONG mode = 0;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    winsim::RunAtIrql(PASSIVE_LEVEL, [&] { status = OrnixRegRead(ext, ORNIX_FPGA_MODE, &mode); });
    id["fpgaConfigured"] = NT_SUCCESS(status) && (mode & ORNIX_FPGA_CONFIGURED) != 0;
    id["fpgaBusy"] = NT_SUCCESS(status) && (mode & ORNIX_FPGA_BUSY) != 0;
    id["fpgaVersion"] = ext->FpgaVersion;
    id["specVersion"] = ext->SpecVersion;
    id["highSpeed"] = ext->HighSpeed != FALSE;
    return id;
}

nlohmann::ordered_json TopologyJson(Session& session) {
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    const winsim::FilterView& filter = session.Rig().StreamClass().Filter();
    nlohmann::ordered_json t;
    t["streams"] = ext->StreamCount;
    t["pins"] = nlohmann::json::array();
    for (const winsim::PinView& pin : filter.pins) {
        t["pins"].push_back(pin.name ? PinName(*pin.name) : "");
    }
    t["categories"] = nlohmann::json::array();
    for (const GUID& category : filter.topologyCategories) {
        t["categories"].push_back(winsim::GuidText(category));
    }
    t["pipeMap"] = PipeMapJson(ext);

    t["pipes"] = nlohmann::json::array();
    if (ext->InterfaceInfoTable != nullptr) {
        for (ULONG alt : std::set<ULONG>{ext->VideoAltSetting, ext->FpgaAltSetting}) {
            const PUSBD_INTERFACE_INFORMATION iface =
                alt < ext->InterfaceInfoCount ? ext->InterfaceInfoTable[alt] : nullptr;
            for (ULONG i = 0; iface != nullptr && i < iface->NumberOfPipes; ++i) {
                const USBD_PIPE_INFORMATION& pipe = iface->Pipes[i];
                nlohmann::ordered_json p;
                p["altSetting"] = alt;
                p["index"] = i;
                p["role"] = PipeRole(ext, alt, i);
                p["endpointAddress"] = pipe.EndpointAddress;
                p["type"] = PipeTypeName(pipe.PipeType);
                p["maximumPacketSize"] = pipe.MaximumPacketSize;
                p["maximumTransferSize"] = pipe.MaximumTransferSize;
                t["pipes"].push_back(p);
            }
        }
    }
    t["openPipes"] = nlohmann::json::array();
    for (const usbsim::PipeStatus& pipe : session.Rig().Usb().OpenPipes()) {
        nlohmann::ordered_json p;
        p["endpointAddress"] = pipe.endpointAddress;
        p["type"] = PipeTypeName(pipe.type);
        p["maximumPacketSize"] = pipe.maximumPacketSize;
        p["maximumTransferSize"] = pipe.maximumTransferSize;
        p["halted"] = pipe.halted;
        t["openPipes"].push_back(p);
    }
    t["eventSets"] = nlohmann::json::array();
    for (const winsim::EventSetView& set : filter.eventSets) {
        nlohmann::ordered_json e;
        e["name"] = EventSetName(set.set);
        e["guid"] = winsim::GuidText(set.set);
        e["eventIds"] = set.eventIds;
        t["eventSets"].push_back(e);
    }
    t["deviceEventRoutine"] = filter.hasDeviceEventRoutine;
    return t;
}

void PrintIdentity(const nlohmann::ordered_json& id, std::ostream& out) {
    TextTable table({"Identity", "Value"});
    auto hex4 = [&](const char* key) {
        return id.contains(key) ? HexText(id[key].get<uint32_t>(), 4) : std::string("-");
    };
    table.AddRow({"Vendor id", hex4("vendorId")});
    table.AddRow({"Product id", hex4("productId")});
    table.AddRow({"bcdDevice", hex4("bcdDevice")});
    const auto serial = id["serialNumber"].get<uint32_t>();
    char digits[16];
    std::snprintf(digits, sizeof digits, "%08u", static_cast<unsigned>(serial));
    table.AddRow({"Serial number", serial == 0 ? std::string("none") : std::string(digits)});
    table.AddRow({"Camera id", HexText(id["cameraId"].get<uint32_t>(), 4)});
    std::string fpga = id["fpgaConfigured"].get<bool>() ? "configured" : "not configured";
    if (id["fpgaBusy"].get<bool>()) {
        fpga += ", busy";
    }
    table.AddRow({"FPGA", fpga + ", version " + HexText(id["fpgaVersion"].get<uint32_t>(), 8)});
    table.AddRow({"ORNIX_SPEC_VERSION", std::to_string(id["specVersion"].get<uint32_t>())});
    table.AddRow({"Bus", id["highSpeed"].get<bool>() ? "high speed" : "full speed"});
    table.Print(out);
}

void PrintTopology(const nlohmann::ordered_json& t, std::ostream& out) {
    out << "Streams: " << t["streams"].get<uint32_t>() << " (";
    for (size_t i = 0; i < t["pins"].size(); ++i) {
        out << (i ? ", " : "") << t["pins"][i].get<std::string>();
    }
    if (t["pins"].empty()) {
        out << "no pins: nothing to stream";
    }
    out << ")\n\n";
    TextTable pipes({"Alt", "Pipe", "Role", "Endpoint", "Type", "Packet", "Max transfer"});
    for (const auto& p : t["pipes"]) {
        pipes.AddRow({p["altSetting"].dump(), p["index"].dump(), p["role"].get<std::string>(),
                      HexText(p["endpointAddress"].get<uint32_t>(), 2),
                      p["type"].get<std::string>(), p["maximumPacketSize"].dump(),
                      p["maximumTransferSize"].dump()});
    }
    pipes.Print(out);
    out << "\nOpen pipes (USB stack):\n";
    TextTable open({"Endpoint", "Type", "Packet", "Max transfer", "Halted"});
    for (const auto& p : t["openPipes"]) {
        open.AddRow({HexText(p["endpointAddress"].get<uint32_t>(), 2), p["type"].get<std::string>(),
                     p["maximumPacketSize"].dump(), p["maximumTransferSize"].dump(),
                     p["halted"].get<bool>() ? "yes" : "no"});
    }
    open.Print(out);
    out << "\nEvent sets"
        << (t["deviceEventRoutine"].get<bool>() ? "" : " (no device event routine)") << ":\n";
    TextTable events({"Set", "GUID", "Event ids"});
    for (const auto& e : t["eventSets"]) {
        std::string ids;
        for (const auto& id : e["eventIds"]) {
            ids += (ids.empty() ? "" : " ") + id.dump();
        }
        events.AddRow({e["name"].get<std::string>(), e["guid"].get<std::string>(), ids});
    }
    events.Print(out);
}

}  // namespace ornixctl
