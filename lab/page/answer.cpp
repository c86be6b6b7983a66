#include "lab/page/answer.h"

#include <charconv>

#include "lab/store/record_text.h"

namespace kv::lab {

Answer TextAnswer(int status, const std::string& line) {
    Answer answer;
    answer.status = status;
    answer.body = line + "\n";
    return answer;
}

std::string Parameter(const ServletRequest& request, const std::string& name) {
    const auto found = request.query.find(name);
    return found == request.query.end() ? "" : CleanUtf8(found->second);
}

std::string RequiredParameter(const ServletRequest& request, const std::string& name) {
    std::string value = Parameter(request, name);
    if (value.empty()) throw BadRequest("the parameter " + name + " is missing");
    return value;
}

std::int64_t NumberParameter(const ServletRequest& request, const std::string& name, std::int64_t fallback) {
    const std::string text = Parameter(request, name);
    if (text.empty()) return fallback;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0)
        throw BadRequest("the parameter " + name + " is not a number");
    return number;
}

}  // namespace kv::lab
