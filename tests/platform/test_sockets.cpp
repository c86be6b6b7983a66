// The contract of the datagram operations.
#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <set>
#include <vector>

#include "platform/backend.h"
#include "platform/sockets.h"

namespace platform::test {

namespace {

struct SocketTest : ::testing::Test {
    SocketTest() { InstallBackend(); }
};

SocketHandle OpenSocket() {
    SocketHandle socket = 0;
    EXPECT_EQ(Sockets().socket(socket), error::success);
    EXPECT_EQ(Sockets().bind(socket, {}), error::success);
    return socket;
}

TEST_F(SocketTest, DatagramsGoThereAndBack) {
    constexpr std::array<std::uint8_t, 4> loopback{127, 0, 0, 1};
    const SocketHandle client = OpenSocket();
    SocketHandle device = 0;
    ASSERT_EQ(Sockets().socket(device), error::success);
    std::uint16_t port = 20000;
    while (port < 21000 && Sockets().bind(device, {loopback, port}) != error::success) ++port;
    std::array<char, 100> buffer{};
    SocketAddress peer;
    std::size_t length = 0;
    bool ready = true;
    EXPECT_EQ(Sockets().select(device, 1000, ready), error::success);
    EXPECT_FALSE(ready);
    EXPECT_EQ(Sockets().recvfrom(device, buffer.data(), buffer.size(), peer, length), error::busy);
    for (const std::size_t size : {std::size_t{0}, std::size_t{42}, std::size_t{1500}}) {
        const std::vector<char> bytes(size, static_cast<char>(size));
        EXPECT_EQ(Sockets().sendto(client, bytes.data(), size, {loopback, port}, length), error::success);
        EXPECT_EQ(length, size);
        ASSERT_EQ(Sockets().select(device, 2500000, ready), error::success);
        ASSERT_TRUE(ready);
        const Error received = Sockets().recvfrom(device, buffer.data(), buffer.size(), peer, length);
        if (size > buffer.size() && received != error::success) continue;  // a cut is an error on some systems
        ASSERT_EQ(received, error::success);
        EXPECT_EQ(length, std::min(size, buffer.size())) << "what is too long is cut";
        EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + length, bytes.begin()));
        EXPECT_EQ(peer.address, loopback);
    }
    EXPECT_EQ(Sockets().sendto(device, "x", 1, peer, length), error::success);
    EXPECT_EQ(Sockets().select(client, 1000000, ready), error::success);
    EXPECT_TRUE(ready) << "the answer finds the sender";
    const std::vector<char> tooLong(70000);
    EXPECT_NE(Sockets().sendto(client, tooLong.data(), tooLong.size(), peer, length), error::success);
    for (const SocketHandle socket : {client, device}) EXPECT_EQ(Sockets().closesocket(socket), error::success);
}

TEST_F(SocketTest, AHandleIsNeverTakenForAStatus) {
    std::set<SocketHandle> sockets;
    while (sockets.size() < 300) {
        const SocketHandle socket = OpenSocket();
        ASSERT_TRUE(sockets.insert(socket).second);
        for (const SocketHandle status : {0U, 99U, 255U}) EXPECT_NE(socket & 0xFF, status) << socket;
    }
    for (const SocketHandle socket : sockets) EXPECT_EQ(Sockets().closesocket(socket), error::success);
    for (const SocketHandle socket : {SocketHandle{0}, *sockets.rbegin()}) {
        char byte = 0;
        SocketAddress peer;
        std::size_t length = 0;
        bool ready = true;
        EXPECT_EQ(Sockets().bind(socket, {}), error::invalidHandle);
        EXPECT_EQ(Sockets().select(socket, 0, ready), error::invalidHandle);
        EXPECT_FALSE(ready);
        EXPECT_EQ(Sockets().sendto(socket, &byte, 1, peer, length), error::invalidHandle);
        EXPECT_EQ(Sockets().recvfrom(socket, &byte, 1, peer, length), error::invalidHandle);
        EXPECT_EQ(Sockets().closesocket(socket), error::invalidHandle);
    }
}

}  // namespace

}  // namespace platform::test
