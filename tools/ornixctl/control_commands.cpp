#include "ornixctl/control_commands.h"

#include <nlohmann/json.hpp>
#include <sstream>

#include "ornix.h"
#include "ornixctl/control_values.h"

namespace ornixctl {
namespace {

using Json = nlohmann::ordered_json;

// Reads `control` into the document and the text, or notes why it failed.
bool Report(Session& session, const ControlRef& control, Json& controls, std::ostream& text,
            std::ostream& err) {
    try {
        ControlReading reading = ReadControl(session, control);
        text << ControlLine(reading) << "\n";
        controls.push_back(std::move(reading.json));
        return true;
    } catch (const std::runtime_error& e) {
        err << "ornixctl: " << e.what() << "\n";
        controls.push_back(Json{{"name", control.Name()}, {"error", e.what()}});
        return false;
    }
}

Json Document(Session& session, Json controls) {
    Json doc;
    doc["camera"] = session.ProfileName();
    doc["controls"] = std::move(controls);
    return doc;
}

}  // namespace

int RunGet(Session& session, const std::vector<std::string>& names, bool json, std::ostream& out,
           std::ostream& err) {
    std::vector<ControlRef> controls;
    try {
        for (const std::string& name : names) {
            controls.push_back(FindControl(name));
        }
    } catch (const UsageError& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
    Json readings = Json::array();
    std::ostringstream text;
    bool ok = true;
    for (const ControlRef& control : controls) {
        ok = Report(session, control, readings, text, err) && ok;
    }
    out << (json ? Document(session, std::move(readings)).dump(2) + "\n" : text.str());
    return ok ? 0 : 1;
}

int RunSet(Session& session, const std::vector<std::string>& assignments, bool autoMode, bool json,
           std::ostream& out, std::ostream& err) {
    std::vector<std::pair<ControlRef, std::string>> settings;
    try {
        for (const std::string& assignment : assignments) {
            const size_t equals = assignment.find('=');
            if (equals == std::string::npos) {
                throw UsageError("'" + assignment + "': write NAME=VALUE");
            }
            settings.emplace_back(FindControl(assignment.substr(0, equals)),
                                  assignment.substr(equals + 1));
        }
    } catch (const UsageError& e) {
        err << "ornixctl: " << e.what() << "\n";
        return 1;
    }
    Json readings = Json::array();
    std::ostringstream text;
    bool ok = true;
    for (const auto& [control, value] : settings) {
        try {
            WriteControl(session, control, value, autoMode);
        } catch (const std::runtime_error& e) {
            err << "ornixctl: " << e.what() << "\n";
            readings.push_back(Json{{"name", control.Name()}, {"error", e.what()}});
            ok = false;
            continue;
        }
        if (control.info->canGet) {
            ok = Report(session, control, readings, text, err) && ok;
        } else {
            text << control.Name() << ": " << value << " done\n";
            readings.push_back(Json{{"name", control.Name()}, {"done", value}});
        }
    }
    out << (json ? Document(session, std::move(readings)).dump(2) + "\n" : text.str());
    return ok ? 0 : 1;
}

int RunReset(Session& session, bool json, std::ostream& out, std::ostream& err) {
    try {
        SetProperty(session, {OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_RESET, "reset"}, {});
    } catch (const PropertyFailure& e) {
        err << "ornixctl: " << e.what()
            << (e.Status() == STATUS_UNSUCCESSFUL
                    ? " (the camera is reset only while no stream is open)"
                    : "")
            << "\n";
        return 1;
    }
    if (json) {
        out << Json{{"camera", session.ProfileName()}, {"reset", true}}.dump(2) << "\n";
    } else {
        out << "Camera reset: formats, binning and frame rates start afresh.\n";
    }
    return 0;
}

}  // namespace ornixctl
