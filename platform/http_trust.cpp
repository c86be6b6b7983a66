#include "platform/http_trust.h"

#include <algorithm>

namespace platform {

bool AsksForCertificate(const HttpServerTrust& trust) {
    return !trust.pinnedKeys.empty() || trust.authorities || trust.systemAuthorities || trust.onlyLook;
}

bool PassesChecks(const HttpPresentedCertificate& certificate) {
    return certificate.keyProblem.value_or("").empty() && certificate.authoritiesProblem.value_or("").empty() &&
           certificate.systemProblem.value_or("").empty();
}

std::string KeyProblem(const std::vector<std::string>& pinnedKeys, std::string_view keyPin) {
    if (std::find(pinnedKeys.begin(), pinnedKeys.end(), keyPin) != pinnedKeys.end()) return "";
    return pinnedKeys.size() == 1 ? "its key is not the pinned one" : "its key is not one of the pinned ones";
}

namespace {

/// Names and bytes of one that a text shows, at most: a stranger chooses how many and how long they are.
constexpr std::size_t mostNames = 10;
constexpr std::size_t mostNameBytes = 256;

/// A name of a certificate without what would break its line.
std::string ShownName(std::string name) {
    for (char& c : name) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = '?';
    }
    if (name.size() <= mostNameBytes) return name;
    std::size_t end = mostNameBytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;  // inside a character
    return name.substr(0, end) + "...";
}

}  // namespace

std::string NameProblem(const std::vector<std::string>& names, std::string_view host) {
    if (names.empty()) return "it names no host, and " + std::string(host) + " is expected";
    std::string text = "it is for ";
    const std::size_t shown = std::min(names.size(), mostNames);
    for (std::size_t i = 0; i < shown; ++i) text += (i == 0 ? "" : ", ") + ShownName(names[i]);
    if (names.size() > shown) text += " and " + std::to_string(names.size() - shown) + " more";
    return text + ", not for " + std::string(host);
}

std::string FingerprintText(std::span<const unsigned char> bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const unsigned char byte : bytes) {
        if (!text.empty()) text += ':';
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

std::string ServerText(std::string_view host, std::uint16_t port) {
    const bool bare = host.find(':') != std::string_view::npos && !host.starts_with('[');
    return (bare ? "[" + std::string(host) + "]" : std::string(host)) + ":" + std::to_string(port);
}

bool SplitPem(std::string_view pem, std::vector<std::string>& certificates) {
    constexpr std::string_view first = "-----BEGIN CERTIFICATE-----";
    constexpr std::string_view last = "-----END CERTIFICATE-----";
    for (std::size_t begin = 0; (begin = pem.find(first, begin)) != std::string_view::npos;) {
        std::size_t end = pem.find(last, begin);
        if (end == std::string_view::npos) return false;
        end += last.size();
        certificates.emplace_back(pem.substr(begin, end - begin));
        begin = end;
    }
    return true;
}

}  // namespace platform
