#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

using Trace = std::vector<std::string>;

/// A platform that holds what a test put there, notes every call in order, and fails those it is told to.
struct ScriptedPlatform {
    // The request, and what the cloud library has to offer.
    std::optional<std::string> operation;
    int record_count = 1;                             ///< as the library reports it; it hands over as many
    bool null_list = false;                           ///< a backup is handed no list
    std::vector<std::optional<std::string>> restored; ///< values of the records to restore
    int result = 1;                                   ///< of the exchange, for the completed callback

    // The device.
    int active_ime_result = 4; ///< 0 or less: the identifier is left out
    std::string active_ime = "kbd1";
    std::map<std::string, int> bools = {{"db/ise/hand_write", 1}, {"db/ise/engine/prediction_val", 0}};
    std::map<std::string, std::string> strings = {
        {"db/ise/engine/lpm/selected_lang", "ko_KR#en_US#"},
        {"db/ise/engine/lpm/downloaded_lang", "en_US#ko_KR#"},
        {"db/ise/engine/lpm/downloaded_with_handwriting_lang", "ko_KR#"},
    };
    std::map<std::string, int> config;
    std::string translated; ///< what the message catalogue has for every text, if it has anything

    // What goes wrong: the call with this number, counted from 1 over those that can fail.
    int failing_call = 0;
    std::string failing_function; ///< or this function, when it is called
    int failing_occurrence = 1;   ///< for the n-th time
    int failure_code = -7;
    bool fails_with_effect = false; ///< a failing call still yields what it is asked for

    // What happened.
    Trace trace;
    int calls = 0;
    std::string failed_call;
    std::set<std::string> log_lines; ///< where in the source the log lines come from
    bool exited = false;
    int live_handles = 0; ///< lists, key lists, replies and configurations that were not released

    /// Runs one request, the exchange that it starts, and the end of the service.
    const Trace &run();

    /// The lines of the trace that begin with one of `prefixes`.
    Trace only(const std::set<std::string> &prefixes) const;
    size_t count(const std::string &prefix) const { return only({prefix}).size(); }
};

/// The platform that the service runs on now.
extern ScriptedPlatform *platform;
