// The form in which a wide JSON document is fed to json-c, which reads bytes, and the way back.
//
//   each 16-bit unit      1 to 3 bytes, as UTF-8 encodes a code point of that number; surrogates are not joined, so a
//                         text comes back unit for unit, with its unpaired surrogates
//   \uXXXX from 80 up     one unit for each byte of the UTF-8 form of XXXX: the escape of E9 is the two units C3 A9
//   a comment             a blank
//   a text, "abc"         "0000001fabc": eight leading hexadecimal digits that count the document's texts. json-c keeps
//                         a key that is given twice at its first place; with the count no two keys are equal, and the
//                         reader sees which one came last
//
// Pure routines, callable from any thread; those that make a text throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

/// The bytes for json-c. A malformed document is taken, too: json-c says what is wrong with it.
std::string NarrowJson(std::u16string_view document);

/// Where in the wide document a byte of its narrow form comes from; the document's size for a byte behind the end.
std::size_t WideOffset(std::u16string_view document, std::size_t narrowOffset);

/// The length, in units, of the text in quotation marks or the comment at the start of the rest of a wide document,
/// which must not be empty; 0 when neither begins there.
std::size_t LengthOfTextOrComment(std::u16string_view rest);

/// A key or a text value as json-c has read it, without its count. Two are equal when their wide texts are.
std::string_view WithoutTextCount(std::string_view narrow);

/// The number of a key or a text value as json-c has read it: 0 for the document's first text.
std::uint32_t NumberOfText(std::string_view narrow);

/// The wide text of a key or a text value as json-c has read it from the narrow form.
std::u16string WideTextFromNarrow(std::string_view narrow);

}  // namespace kv
