// The .reg text format, "Windows Registry Editor Version 5.00", in memory: parse and print, no I/O.
//
//   Windows Registry Editor Version 5.00
//
//   ; a comment
//   [HKEY_LOCAL_MACHINE\Software\Example]         the key to which the lines below belong
//   @="text of the default value"                 \\ and \" stand for a backslash and a quote
//   "name"=dword:0000001e                         one to eight hexadecimal digits
//   "name"=hex:01,02,\                            bytes; a backslash at the end goes on in the next line
//     03,04
//   "name"=hex(2):25,00,00,00                     bytes of the type with that hexadecimal number
//   "name"=-                                      deletes the value
//   [-HKEY_LOCAL_MACHINE\Software\Old]            deletes the key and all below it
//
// The parser takes UTF-16 of either byte order with a byte order mark, and UTF-8 with or without one; line ends of any
// system; HKLM as the root's name; quoted data over several lines. The printer writes UTF-16LE with a byte order mark
// and CRLF.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

namespace kv {

struct RegFileValue {
    std::u16string name;  // empty: the key's default value
    bool deleted = false;
    platform::RegistryType type = platform::RegistryType::none;
    std::vector<std::byte> data;
    std::size_t line = 0;  // of the file, from 1; 0 when it is not from a file
};

struct RegFileKey {
    std::u16string path;  // below HKEY_LOCAL_MACHINE; empty: the root itself
    bool deleted = false;
    std::vector<RegFileValue> values;
    std::size_t line = 0;  // as above
};

/// Keys and values in the order of the file.
using RegFile = std::vector<RegFileKey>;

struct RegFileError {
    std::size_t line = 0;  // from 1
    std::string message;
};

/// True; or false, with the first error and an empty file. Names, lengths and the root are checked, so that what was
/// parsed can also be stored.
bool ParseRegFile(std::string_view bytes, RegFile& file, RegFileError& error);

/// Whether bytes begin as a .reg file does, of this format or the older one, in any encoding that the parser knows.
bool BeginsAsRegFile(std::string_view bytes);

/// The bytes of a .reg file. A text that cannot stand in quotes (it has control characters, or bytes after its end) is
/// written as hex(1).
std::string PrintRegFile(const RegFile& file);

/// Splits the root off a whole key path; false when it names another root, or no root. The path below the root is not
/// checked.
bool SplitRootName(std::u16string_view wholePath, std::u16string_view& path);

/// The text in a value's bytes, up to the first zero character or the end. An odd last byte counts as the low half of a
/// character, because a text may be stored with half of its terminator.
std::u16string TextOfData(std::span<const std::byte> data);

/// The bytes of a text, with its terminator.
std::vector<std::byte> DataOfText(std::u16string_view text);

}  // namespace kv
