#include "ornixctl/controls_command.h"

#include <nlohmann/json.hpp>
#include <string>

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

}  // namespace

int RunControls(Session& session, bool json, std::ostream& out) {
    const winsim::FilterView& filter = session.Rig().StreamClass().Filter();
    if (json) {
        nlohmann::ordered_json doc;
        doc["camera"] = session.ProfileName();
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
