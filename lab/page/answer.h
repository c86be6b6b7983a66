// A request to the lab's server and its answer, apart from HTTP.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv::lab {

struct ServletRequest {
    std::string method;                             // "GET" or "POST"
    std::string path;                               // without the query
    std::multimap<std::string, std::string> query;  // decoded
    std::string_view body;
    std::string address;  // of the sender
    bool cut = false;     // only half of the answer will be sent
    bool html = false;    // who asks can show HTML: a browser
};

struct Answer {
    int status = 200;
    std::string body;
    std::string type = "text/plain; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;
};

/// An answer with one line of text.
Answer TextAnswer(int status, const std::string& line);

/// What is wrong with a request, in one line; it is answered with 400.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A parameter of the query in good UTF-8; empty when it is absent.
std::string Parameter(const ServletRequest& request, const std::string& name);

/// Throws BadRequest when the parameter is absent or empty.
std::string RequiredParameter(const ServletRequest& request, const std::string& name);

/// The fallback when the parameter is absent or empty; BadRequest when it is not a number from 0 upward.
std::int64_t NumberParameter(const ServletRequest& request, const std::string& name, std::int64_t fallback);

}  // namespace kv::lab
