#include "ornixctl/controls_command.h"

#include <nlohmann/json.hpp>
#include <string>

#include "ornixctl/control_values.h"
#include "ornixctl/names.h"
#include "ornixctl/text_table.h"

namespace ornixctl {
namespace {

nlohmann::ordered_json ItemJson(const GUID& set, const winsim::PropertyItemView& item) {
    nlohmann::ordered_json j;
    j["id"] = item.id;
    j["name"] = PropertyItemName(set, item.id);
    j["get"] = item.get;
    j["set"] = item.set;
    j["minProperty"] = item.minProperty;
    j["minData"] = item.minData;
    if (item.range) {
        j["minimum"] = item.range->minimum;
        j["maximum"] = item.range->maximum;
        j["step"] = item.range->step;
        if (item.range->defaultValue) {
            j["default"] = *item.range->defaultValue;
        }
    }
    return j;
}

std::string Access(const winsim::PropertyItemView& item) {
    if (item.get && item.set) {
        return "get/set";
    }
    return item.get ? "get" : (item.set ? "set" : "-");
}

// Every control the camera offers, read now. Records are listed one by one;
// product-data sections are not controls (`get section:N` reads them).
std::vector<ControlReading> ReadAll(Session& session) {
    std::vector<ControlReading> readings;
    auto read = [&](const ControlRef& control) {
        if (!control.info->canGet || PublishedItem(session, control) == nullptr) {
            return;
        }
        try {
            readings.push_back(ReadControl(session, control));
        } catch (const std::runtime_error& e) {
            ControlReading failed;
            failed.json["name"] = control.Name();
            failed.json["error"] = e.what();
            failed.text = std::string("unavailable: ") + e.what();
            readings.push_back(std::move(failed));
        }
    };
    for (const ControlInfo& info : Controls()) {
        if (info.kind == ControlKind::Record) {
            for (uint32_t record = 0; record <= 56; ++record) {
                try {
                    read(FindControl("record:" + std::to_string(record)));
                } catch (const UsageError&) {
                    // reached through a standard control only
                }
            }
        } else if (info.kind != ControlKind::Section) {
            read(ControlRef{&info, 0, info.id});
        }
    }
    return readings;
}

std::string Field(const nlohmann::ordered_json& j, const char* key) {
    return j.contains(key) ? j[key].dump() : "-";
}

void PrintControls(const std::vector<ControlReading>& readings, std::ostream& out) {
    TextTable table({"Control", "Value", "Minimum", "Maximum", "Step", "Default", "Mode"});
    for (const ControlReading& r : readings) {
        if (r.json.contains("mode") && r.json.contains("minimum")) {
            table.AddRow({r.json["name"].get<std::string>(), Field(r.json, "value"),
                          Field(r.json, "minimum"), Field(r.json, "maximum"), Field(r.json, "step"),
                          Field(r.json, "default"),
                          r.json["mode"].get<std::string>() +
                              (r.json["autoAvailable"].get<bool>() ? " (auto available)" : "")});
        }
    }
    out << "\nStandard controls\n";
    table.Print(out);
    out << "\nCustom controls\n";
    for (const ControlReading& r : readings) {
        if (!(r.json.contains("mode") && r.json.contains("minimum"))) {
            out << "  " << ControlLine(r) << "\n";
        }
    }
}

}  // namespace

int RunControls(Session& session, bool json, std::ostream& out) {
    const winsim::FilterView& filter = session.Rig().StreamClass().Filter();
    if (json) {
        nlohmann::ordered_json doc;
        doc["camera"] = session.ProfileName();
        doc["controls"] = nlohmann::json::array();
        for (ControlReading& reading : ReadAll(session)) {
            doc["controls"].push_back(std::move(reading.json));
        }
        doc["propertySets"] = nlohmann::json::array();
        for (const winsim::PropertySetView& set : filter.propertySets) {
            nlohmann::ordered_json s;
            s["name"] = PropertySetName(set.set);
            s["guid"] = winsim::GuidText(set.set);
            s["items"] = nlohmann::json::array();
            for (const winsim::PropertyItemView& item : set.items) {
                s["items"].push_back(ItemJson(set.set, item));
            }
            doc["propertySets"].push_back(s);
        }
        out << doc.dump(2) << "\n";
        return 0;
    }

    out << "Camera: " << session.ProfileName() << "\n";
    PrintControls(ReadAll(session), out);
    out << "\nProperty sets\n";
    for (const winsim::PropertySetView& set : filter.propertySets) {
        out << "\n"
            << PropertySetName(set.set) << " {" << winsim::GuidText(set.set) << "}, "
            << set.items.size() << " items\n";
        TextTable table({"Id", "Name", "Access", "MinProperty", "MinData", "Minimum", "Maximum",
                         "Step", "Default"});
        for (const winsim::PropertyItemView& item : set.items) {
            std::vector<std::string> row = {
                std::to_string(item.id), PropertyItemName(set.set, item.id), Access(item),
                std::to_string(item.minProperty), std::to_string(item.minData)};
            if (item.range) {
                row.push_back(std::to_string(item.range->minimum));
                row.push_back(std::to_string(item.range->maximum));
                row.push_back(std::to_string(item.range->step));
                row.push_back(item.range->defaultValue ? std::to_string(*item.range->defaultValue)
                                                       : "-");
            }
            table.AddRow(std::move(row));
        }
        table.Print(out);
    }
    return 0;
}

}  // namespace ornixctl
