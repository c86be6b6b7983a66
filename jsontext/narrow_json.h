// The form in which a wide JSON document is fed to json-c, which reads bytes, and the way back.
//
//   each 16-bit unit      1 to 3 bytes, as UTF-8 encodes a code point of that number; surrogates are not joined, so
//   every
//                         text comes back unit for unit, unpaired surrogates included
//   \uXXXX from 80 up     one unit for each byte of the UTF-8 form of XXXX: the escape of E9 is the two units C3 A9
//   a comment             a blank
//   a text, "abc"         "0000001fabc": eight hexadecimal digits ahead that count the document's texts. json-c keeps a
//                         key that is given twice at its first place; with the count no two keys are equal, and the
//                         reader can see which came last
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kv {

/// The bytes for json-c. Malformed documents are taken too: what is wrong with them is for json-c to say.
std::string NarrowJson(std::u16string_view document);

/// Where in the wide document a byte of its narrow form stems from; the document's size for one behind the end.
std::size_t WideOffset(std::u16string_view document, std::size_t narrowOffset);

/// How many units a text in quotation marks or a comment has that begins the rest of a wide document, which is not
/// empty; 0 when neither begins there.
std::size_t LengthOfTextOrComment(std::u16string_view rest);

/// A key or a text value as json-c has read it, without the count ahead of it. Two are equal where their wide texts
/// are.
std::string_view WithoutTextCount(std::string_view narrow);

/// The wide text of a key or a text value as json-c has read it from the narrow form.
std::u16string WideTextFromNarrow(std::string_view narrow);

}  // namespace kv
