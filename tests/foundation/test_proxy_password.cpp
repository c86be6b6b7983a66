// Texts encrypted with a passphrase: what happens when a step of the service fails, and that each gives back what it
// took. What comes out where all succeed is the business of the systems that have such a service.
#include <gtest/gtest.h>
#include <set>

#include "foundation/proxy_password.h"
#include "platform/crypto.h"

namespace kv::test {

namespace {

using platform::CryptoOperations;
namespace error = platform::error;

/// A service whose "encryption" turns each bit, and of which one step fails.
struct FakeService {
    int failingStep = 0;  // from 1 in the order of use; 0: none
    int step = 0;
    std::multiset<std::uintptr_t> open;
    std::size_t hashedBytes = 0;

    platform::Error Give(std::uintptr_t number, std::uintptr_t& handle) {
        if (++step == failingStep) return error::notSupported;
        open.insert(handle = number);
        return error::success;
    }
    platform::Error Turn(std::byte* data, std::size_t size) {
        if (++step == failingStep) return error::notSupported;
        for (std::size_t i = 0; i < size; ++i) data[i] = ~data[i];
        return error::success;
    }
    CryptoOperations Operations() {
        CryptoOperations crypto;
        crypto.CryptAcquireContextW = [this](auto&&, bool, auto& context) { return Give(1, context); };
        crypto.CryptCreateHash = [this](auto, auto, auto& hash) { return Give(2, hash); };
        crypto.CryptHashData = [this](auto, auto*, std::size_t size) {
            hashedBytes = size;
            return ++step == failingStep ? error::notSupported : error::success;
        };
        crypto.CryptDeriveKey = [this](auto, auto, auto, auto& key) { return Give(3, key); };
        crypto.CryptEncrypt = crypto.CryptDecrypt = [this](auto, auto* data, auto size) { return Turn(data, size); };
        crypto.CryptDestroyKey = crypto.CryptDestroyHash = [this](auto handle) { open.erase(handle); };
        crypto.CryptReleaseContext = crypto.CryptDestroyKey;
        return crypto;
    }
};

TEST(Passphrase, AStepThatFailsLeavesTheTextAndKeepsNothing) {
    for (int step = 0; step <= 5; ++step) {
        SCOPED_TRACE(step);
        FakeService service;
        service.failingStep = step;
        const platform::ScopedOperations scoped(service.Operations());
        std::u16string out = u"before";
        EXPECT_EQ(EncryptWithPassphrase(u"abc", out, u"a longer passphrase"), step <= 1 ? 1 : 0);
        EXPECT_EQ(out, step == 0 ? u"\xFF9E\xFF9D\xFF9C" : u"before");
        EXPECT_TRUE(service.hashedBytes == 6 || step == 1 || step == 2) << service.hashedBytes;
        service.step = 0;
        out = u"before";
        DecryptWithPassphrase(u"\xFF9E\xFF9D\xFF9C", out, u"p");
        EXPECT_EQ(out, step == 0 ? u"abc" : u"before");
        EXPECT_TRUE(service.open.empty());
    }
}

}  // namespace

}  // namespace kv::test
