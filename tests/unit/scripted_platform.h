#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

using Trace = std::vector<std::string>;

/// A platform that holds what a test gives it, notes every call in order, and fails those it is told to.
struct ScriptedPlatform {
    /// What the device holds, by key, and what else a test can choose. "(null)" is no text.
    std::map<std::string, std::string> given = {
        {"operation", "(null)"},
        {"count", ""},        // of records, as the library reports it, if not the number of them
        {"no list", "0"},     // a backup is handed no list
        {"result", "1"},      // of the exchange, for the completed callback
        {"keyboard", "kbd1"}, // that is active
        {"keyboard result", "4"},
        {"translation", ""}, // what the message catalogue has for every text, if it has anything
        {"db/ise/hand_write", "1"},
        {"db/ise/engine/prediction_val", "0"},
        {"db/ise/engine/lpm/selected_lang", "ko_KR#en_US#"},
        {"db/ise/engine/lpm/downloaded_lang", "en_US#ko_KR#"},
        {"db/ise/engine/lpm/downloaded_with_handwriting_lang", "ko_KR#"},
        {"fail", ""},     // a function
        {"fail at", "1"}, // its n-th call
        {"code", "-7"},   // of a failing call
        {"effect", "0"},  // a failing call yields what it is asked for all the same
        {"success", "5"}, // where any number from 0 on is one
        {"show", ""},     // REGEX: of the trace only what matches it is compared
    };
    std::vector<std::string> records; ///< values of the records to restore
    int failing_call = 0;             ///< counted from 1 over those that can fail

    // What happened.
    Trace trace;
    int calls = 0;
    int told_calls = 0; ///< of the function that is to fail
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
