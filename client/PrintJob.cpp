#include "PrintJob.h"

#include "Text.h"

namespace Kestrel::Client {

namespace {

template <typename T>
T valueOf(const std::map<std::string, sdbus::Variant>& dictionary, const std::string& key)
{
    const auto found = dictionary.find(key);
    return found == dictionary.end() ? T{} : found->second.get<T>();
}

const std::map<std::string, std::string> stateWords = {{"pending", "waiting"}, {"held", "held"},
    {"processing", "printing"}, {"stopped", "stopped"}, {"canceled", "canceled"}, {"aborted", "aborted"},
    {"completed", "completed"}};

} // namespace

PrintJob PrintJob::from(const std::map<std::string, sdbus::Variant>& job)
{
    return {valueOf<uint32_t>(job, "id"), valueOf<std::string>(job, "printer"), valueOf<std::string>(job, "document"),
        valueOf<std::string>(job, "state"), valueOf<std::vector<std::string>>(job, "reasons"),
        valueOf<uint32_t>(job, "pages"), valueOf<int64_t>(job, "created")};
}

bool PrintJob::ended() const
{
    return state == "completed" || state == "canceled" || state == "aborted";
}

std::string PrintJob::describe() const
{
    const auto word = stateWords.find(state);
    std::string text = word == stateWords.end() ? state : word->second;
    if (pages > 0)
        text += ", " + std::to_string(pages) + (pages == 1 ? " page" : " pages");
    // The scheduler leaves reasons such as processing-to-stop-point on a finished job.
    const auto why = state == "completed" ? "" : reasonWords(reasons);
    return why.empty() ? text : text + " (" + why + ")";
}

} // namespace Kestrel::Client
