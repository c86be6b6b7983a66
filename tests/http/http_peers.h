// Transactions of tests and their peers: a well-behaved server, a scripted one, and a proxy. Read what their threads
// note only after the transaction.
#pragma once

#include <functional>
#include <httplib.h>
#include <memory>
#include <thread>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "http/http_transaction.h"
#include "tests/support/loopback.h"
#include "tests/support/test_agent.h"

namespace kv::test {

/// A server of cpp-httplib with its own port and thread. Add routes before the first request.
struct RunningServer {
    explicit RunningServer(std::unique_ptr<httplib::Server> made = std::make_unique<httplib::Server>())
        : server(std::move(made)), port(server->bind_to_any_port("127.0.0.1")) {
        server->set_write_timeout(60);  // the usual 5 seconds are too few for a large body on a busy machine
        server->set_keep_alive_max_count(1);
        thread = std::thread([this] { server->listen_after_bind(); });
        while (!server->is_running()) std::this_thread::yield();
    }
    ~RunningServer() {
        server->stop();
        thread.join();
    }

    std::unique_ptr<httplib::Server> server;
    int port;
    std::thread thread;
};

/// A server with the paths of these tests.
struct TestServer : RunningServer {
    explicit TestServer(std::unique_ptr<httplib::Server> made = std::make_unique<httplib::Server>())
        : RunningServer(std::move(made)) {
        server->Get("/echo", [this](const httplib::Request& request, httplib::Response& response) {
            value = request.get_param_value("value");
            response.set_content(Utf16LittleEndianBytes(u"täxt \U0001f600"), "text/plain");
        });
        server->Get("/size", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(std::string(std::stoul(request.get_param_value("bytes")), 'z'), "x/y");
        });
        server->Get("/hop", [](const httplib::Request& request, httplib::Response& response) {
            response.set_redirect(request.get_param_value("to"));
        });
        server->Post("/post", [this](const httplib::Request& request, httplib::Response& response) {
            value = request.body;
            response.set_content(Utf16LittleEndianBytes(u"thanks"), "text/plain");
        });
    }

    std::string value;  // what the last request carried
};

/// Takes one connection at a time on 127.0.0.1, reads the headers of a request (or the first byte of a TLS greeting),
/// calls the handler and closes the connection.
class RawServer {
  public:
    using Handler = std::function<void(Socket connection, const std::string& request)>;

    explicit RawServer(Handler handler) : handler_(std::move(handler)) {}

    std::vector<std::string> requests;  // their headers, in the order of arrival

  private:
    void Serve(Socket connection) {
        std::string request;
        const auto complete = [&] { return request.ends_with("\r\n\r\n") || request.starts_with('\x16'); };
        for (char c; !complete() && ReceiveBytes(connection, &c, 1) == 1;) request += c;
        requests.push_back(request);
        handler_(connection, request);
    }

    Handler handler_;
    LoopbackServer server_{[this](Socket connection) { Serve(connection); }};

  public:
    const int port = server_.port;
};

/// Sends a text. Then hangs up, or waits until the other side does.
inline RawServer::Handler Answers(std::string text, bool holds = false) {
    return [text = std::move(text), holds](Socket connection, const std::string&) {
        SendText(connection, text);
        for (char c; holds && ReceiveBytes(connection, &c, 1) == 1;) continue;
    };
}

/// Answers before it reads the body. Then reads at most a number of its bytes and counts them in `got`.
inline RawServer::Handler AnswersThenReads(std::string answer, std::size_t& got, std::size_t most = SIZE_MAX) {
    return [answer = std::move(answer), &got, most](Socket connection, const std::string&) {
        SendText(connection, answer);
        std::vector<char> buffer(65536);
        for (std::size_t read = 1; read > 0 && got < most; got += read) {
            read = ReceiveBytes(connection, buffer.data(), buffer.size());
        }
    };
}

/// What a proxy gets for "üser:pass".
inline constexpr char basicCredentials[] = "Basic w7xzZXI6cGFzcw==";

/// A proxy that forwards tunnels and plain requests, and answers 407 to other credentials.
inline RawServer::Handler ProxyThatWants(std::string wantedAuthorization) {
    return [wanted = std::move(wantedAuthorization)](Socket connection, const std::string& request) {
        if (request.find("\r\nProxy-Authorization: " + wanted + "\r\n") == std::string::npos) {
            SendText(connection,
                     "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"x\"\r\n"
                     "Connection: close\r\nContent-Length: 2\r\n\r\nno");
            return;
        }
        const bool tunnel = request.starts_with("CONNECT ");
        const std::size_t authority = tunnel ? 8 : request.find("://") + 3;
        const Socket peer = ConnectToLoopback(std::stoi(request.substr(request.find(':', authority) + 1)));
        if (tunnel) {
            SendText(connection, "HTTP/1.1 200 Connection established\r\nX-Proxy: here\r\n\r\n");
        } else {
            SendText(peer, request.substr(0, request.find(' ') + 1) + request.substr(request.find('/', authority)));
        }
        Relay(connection, peer);
        CloseSocket(peer);
    };
}

/// An agent whose server speaks plain HTTP on this computer.
class HttpTest : public TestAgent {
  protected:
    HttpTest() {
        agentState.gv_LastAccessName.Publish(u"127.0.0.1");
        agentState.gv_httpsEnabled = 0;
    }

    static void UseProxy(std::u16string proxy, std::u16string bypass, std::u16string password = u"pass") {
        agentState.gv_proxyEnabled = u"YES";
        agentState.gv_proxyServerName = std::move(proxy);
        agentState.gv_proxyExceptionAddr = std::move(bypass);
        agentState.gv_proxyUserName = u"üser";
        agentState.gv_proxyPassword = std::move(password);
    }
    static std::u16string At(int port) { return u"127.0.0.1:" + DecimalText(port); }

    static platform::Error Get(int port, std::u16string url, OptionalText* response = nullptr,
                               RequestKind kind = RequestKind::REQUEST_GET) {
        agentState.gv_ServerPort = port;
        return AgentSendRequest({}, 0, url, {}, response, kind, 0, false);
    }
    static platform::Error Post(int port, std::u16string url, std::string_view body, std::size_t length,
                                RequestKind kind = RequestKind::REQUEST_POST_BINARY, OptionalText* response = nullptr) {
        agentState.gv_ServerPort = port;
        return AgentSendRequest({}, 0, url, {.body = body}, response, kind, length, false);
    }

    /// Gets /x into a file of the working directory.
    static platform::Error Download(int port, std::u16string_view file) {
        agentState.gv_ServerPort = port;
        std::u16string url = u"/x";
        return InternetDownloadFile({}, 0, url, file, false);
    }
};

}  // namespace kv::test
