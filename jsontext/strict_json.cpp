#include "jsontext/strict_json.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <utility>

namespace kv {

namespace {

/// Counts all values, and keeps the reason why the reading ended.
struct ShapeReader : nlohmann::json::json_sax_t {
    JsonShape shape;

    bool null() override { return Count(); }
    bool boolean(bool) override { return Count(); }
    bool number_integer(number_integer_t) override { return Count(); }
    bool number_unsigned(number_unsigned_t) override { return Count(); }
    bool number_float(number_float_t, const string_t&) override { return Count(); }
    bool string(string_t&) override { return Count(); }
    bool binary(binary_t&) override { return Count(); }
    bool start_object(std::size_t) override { return Open(); }
    bool key(string_t&) override { return true; }
    bool end_object() override { return Close(); }
    bool start_array(std::size_t) override { return Open(); }
    bool end_array() override { return Close(); }

    /// The reason begins with the library's own names in brackets.
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& failure) override {
        const std::string_view reason = failure.what();
        const std::size_t end = reason.find("] ");
        shape.fault = reason.substr(end == std::string_view::npos ? 0 : end + 2);
        return false;
    }

  private:
    bool Count() {
        ++shape.values;
        return true;
    }
    bool Open() {
        shape.depth = std::max(shape.depth, ++open_);
        return Count();
    }
    bool Close() {
        --open_;
        return true;
    }

    std::size_t open_ = 0;
};

}  // namespace

JsonShape ShapeOf(std::string_view text) {
    // The library takes a NUL for the end of the text.
    if (const std::size_t at = text.find('\0'); at != text.npos) return {fmt::format("NUL at offset {}", at), 0, 0};
    // It also takes a byte order mark, which the format does not have.
    if (text.starts_with("\xEF\xBB\xBF")) return {"byte order mark at line 1, column 1", 0, 0};
    ShapeReader reader;
    nlohmann::json::sax_parse(text, &reader);
    return std::move(reader.shape);
}

std::string StrictJsonFault(std::string_view text) { return ShapeOf(text).fault; }

}  // namespace kv
