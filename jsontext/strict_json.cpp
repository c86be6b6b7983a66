#include "jsontext/strict_json.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace kv {

namespace {

/// Takes every event, and the reason why the reading ended.
struct FaultFinder : nlohmann::json::json_sax_t {
    std::string fault;

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }

    /// The reason begins with the library's own names in brackets.
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& failure) override {
        const std::string_view reason = failure.what();
        const std::size_t end = reason.find("] ");
        fault = reason.substr(end == reason.npos ? 0 : end + 2);
        return false;
    }
};

}  // namespace

std::string StrictJsonFault(std::string_view text) {
    // The library takes a NUL for the end of the text.
    if (const std::size_t at = text.find('\0'); at != text.npos) return fmt::format("NUL at offset {}", at);
    FaultFinder finder;
    nlohmann::json::sax_parse(text, &finder);
    return finder.fault;
}

}  // namespace kv
