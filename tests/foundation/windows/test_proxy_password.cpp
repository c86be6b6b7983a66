// Texts that the system encrypts with a passphrase. The cipher texts were computed independently: RC4 with a key of 128
// bits, the MD5 of the passphrase in UTF-16.
#include <gtest/gtest.h>

#include "foundation/proxy_password.h"
#include "platform/backend.h"

namespace kv::test {
namespace {

TEST(ProxyPassword, EncryptsAndDecryptsKnownTexts) {
    platform::InstallBackend();
    EXPECT_EQ(EnsureCryptoKeys(), 1) << "made";
    EXPECT_EQ(EnsureCryptoKeys(), 1) << "found";
    const std::tuple<const char*, std::u16string, std::u16string, std::u16string> rows[] = {
        {"as long as the passphrase", u"secret", u"passph", u"\x27B0\x584B\xB510\xBD86\x37DD\xBEF0"},
        {"a passphrase counts up to the text's length", u"secret", u"passphrase",
         u"\x27B0\x584B\xB510\xBD86\x37DD\xBEF0"},
        {"a shorter passphrase is filled with zeros", u"gr\u00fcn\u20ac", u"key", u"\xFAA6\x54B7\x52C6\xCDF8\x491E"},
        {"an empty text", u"", u"key", u""},
        {"the longest text", std::u16string(31, u'x'), u"correct horse battery staple and more",
         u"\xB47C\x78B1\xD5D6\x491D\x1DCD\xE4B9\x6C55\x7394\x724A\xD12A\x8446\x259A\xA68C\xB83E\x9217\xE87D"
         u"\x9536\x656C\xFF86\xACC4\x155D\xCDCE\x7515\x79C5\xA997\xFE26\xABA0\xB5BB\x1636\xBEEE\xFE3E"},
    };
    for (const auto& [title, plain, passphrase, cipher] : rows) {
        SCOPED_TRACE(title);
        std::u16string out = u"before";
        EXPECT_EQ(EncryptWithPassphrase(plain, out, passphrase), 1);
        EXPECT_TRUE(out == cipher);
        out = u"before";
        DecryptWithPassphrase(cipher, out, passphrase);
        EXPECT_TRUE(out == plain);
    }
    std::u16string cipher;
    ASSERT_EQ(EncryptWithPassphrase(std::u16string(32, u'x'), cipher, u"key"), 1);
    std::u16string out = u"before";
    DecryptWithPassphrase(cipher, out, u"key");
    EXPECT_EQ(out, u"before") << "32 characters are too many";
    DecryptWithPassphrase(u"\x27B0\x584B\xB510\xBD86\x37DD", out, u"passph");
    EXPECT_TRUE(out != u"secre" && out != u"before") << "another length, another key";
}

}  // namespace
}  // namespace kv::test
