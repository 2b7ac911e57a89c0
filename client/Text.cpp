#include "Text.h"

#include <map>
#include <set>

namespace Kestrel::Client {

namespace {

const std::map<std::string, std::string> reasonTexts = {{"media-empty", "out of paper"},
    {"media-needed", "load paper"}, {"media-jam", "paper jam"}, {"media-low", "paper low"},
    {"toner-empty", "out of toner"}, {"toner-low", "toner low"}, {"marker-supply-empty", "out of ink"},
    {"marker-supply-low", "ink low"}, {"door-open", "a door is open"}, {"cover-open", "the cover is open"},
    {"input-tray-missing", "a paper tray is missing"}, {"output-area-full", "the output tray is full"},
    {"offline", "offline"}, {"shutdown", "switched off"}, {"paused", "paused"},
    {"connecting-to-device", "connecting to the printer"}, {"printer-stopped", "the printer is stopped"},
    {"job-printing", ""}, {"job-queued", ""}, {"job-incoming", ""}, {"processing-to-stop-point", "stopping"},
    {"job-canceled-by-user", "canceled by its owner"}, {"job-completed-successfully", ""},
    {"job-completed-with-errors", "printed with errors"}, {"job-purged", "no longer known to the scheduler"},
    {"job-hold-until-specified", "held"}, {"cups-waiting-for-job-completed", ""}};

// Severity suffixes say how bad, not what.
std::string withoutSuffix(const std::string& reason)
{
    for (const std::string suffix : {"-error", "-warning", "-report"}) {
        if (reason.size() > suffix.size() && reason.compare(reason.size() - suffix.size(), suffix.size(), suffix) == 0)
            return reason.substr(0, reason.size() - suffix.size());
    }
    return reason;
}

} // namespace

std::string reasonWords(const std::vector<std::string>& reasons)
{
    std::vector<std::string> words;
    std::set<std::string> said;
    for (const auto& reason : reasons) {
        const auto bare = withoutSuffix(reason);
        const auto known = reasonTexts.find(bare);
        const auto word = known == reasonTexts.end() ? bare : known->second;
        if (!word.empty() && said.insert(word).second)
            words.push_back(word);
    }
    return joined(words);
}

std::string quoted(const std::string& name)
{
    return "\"" + name + "\"";
}

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const auto& item : items)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

} // namespace Kestrel::Client
