#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

using Trace = std::vector<std::string>;

/// A platform whose contents and failing calls a test chooses. It notes every call in order.
struct ScriptedPlatform {
    /// The device's values by key, and the other things that a test can choose. "(null)" is no text.
    std::map<std::string, std::string> given = {
        {"operation", "(null)"},
        {"count", ""},        // of records, as the library reports it; default: their number
        {"no list", "0"},     // 1: a backup gets no list
        {"result", "1"},      // of the exchange, for the completed callback
        {"keyboard", "kbd1"}, // the active one
        {"keyboard result", "4"},
        {"translation", ""}, // of every text in the message catalogue; "": none
        {"db/ise/hand_write", "1"},
        {"db/ise/engine/prediction_val", "0"},
        {"db/ise/engine/lpm/selected_lang", "ko_KR#en_US#"},
        {"db/ise/engine/lpm/downloaded_lang", "en_US#ko_KR#"},
        {"db/ise/engine/lpm/downloaded_with_handwriting_lang", "ko_KR#"},
        {"fail", ""},     // a function
        {"fail at", "1"}, // its n-th call
        {"code", "-7"},   // of a failing call
        {"effect", "0"},  // 1: a failing call returns its value nevertheless
        {"success", "5"}, // the code of functions that succeed with any number from 0 on
        {"show", ""},     // REGEX: only matching lines of the trace are compared
    };
    std::vector<std::string> records; ///< values of the records to restore
    int failing_call = 0;             ///< counted from 1 among the calls that can fail; 0: none

    // What happened.
    Trace trace;
    int calls = 0;
    int calls_to_fail = 0; ///< of the function in "fail"
    std::string failed_call;
    std::set<std::string> log_lines; ///< where in the source the log lines come from
    bool exited = false;
    int live_handles = 0; ///< lists, key lists, replies and configurations that were not released

    /// Runs one request, the exchange that it starts, and the end of the service.
    const Trace &run();

    void note(const std::string &line) { trace.push_back(line); }
    int number(const std::string &name) const { return std::stoi(given.at(name)); }
    int record_count() const
    {
        return given.at("count").empty() ? static_cast<int>(records.size()) : number("count");
    }
};

/// The platform that the service runs on now.
extern ScriptedPlatform *platform;
