// An authentication challenge raised by a URL transfer, and what answers it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/URLResponse.h"

namespace platform {

struct URLCredential {
    std::string user;
    std::string password;
    bool operator==(const URLCredential&) const = default;
};

struct URLProtectionSpace {
    std::string host;
    int port = 0;
    std::string protocol;              // the URL's scheme
    std::string realm;                 // from the challenge, "" when it named none
    std::string authenticationMethod;  // "HTTPBasic", "HTTPDigest", or the scheme's name as sent
};

// Answered once, on the transfer's thread, by one of the four answers; later answers
// are ignored. A challenge nobody answers leaves its transfer waiting.
class URLAuthenticationChallenge {
public:
    enum class Answer { UseCredential, ContinueWithoutCredential, Cancel };
    using Responder = std::function<void(Answer, const std::optional<URLCredential>&)>;

    URLAuthenticationChallenge(URLProtectionSpace space, std::optional<URLCredential> proposed, int failureCount,
                               URLResponse failureResponse, Responder responder)
        : protectionSpace_(std::move(space)), proposedCredential_(std::move(proposed)),
          previousFailureCount_(failureCount), failureResponse_(std::move(failureResponse)),
          responder_(std::move(responder)) {}

    const URLProtectionSpace& protectionSpace() const { return protectionSpace_; }
    // The credential the user keeps for this host ($HOME/.netrc), or the one that just failed.
    const std::optional<URLCredential>& proposedCredential() const { return proposedCredential_; }
    int previousFailureCount() const { return previousFailureCount_; }
    // The 401 answer that raised the challenge.
    const URLResponse& failureResponse() const { return failureResponse_; }

    // Tries the request again with the credential.
    void useCredential(const URLCredential& credential) { _answer(Answer::UseCredential, credential); }
    // Gives up authenticating: the transfer goes on with the 401 answer as its response.
    void continueWithoutCredential() { _answer(Answer::ContinueWithoutCredential, std::nullopt); }
    // Cancels the challenge; like continuing without a credential, the 401 answer stands.
    void cancel() { _answer(Answer::Cancel, std::nullopt); }
    bool isAnswered() const { return !responder_; }

private:
    void _answer(Answer answer, const std::optional<URLCredential>& credential) {
        if (!responder_) return;
        auto responder = std::move(responder_);
        responder_ = nullptr;
        responder(answer, credential);
    }

    URLProtectionSpace protectionSpace_;
    std::optional<URLCredential> proposedCredential_;
    int previousFailureCount_;
    URLResponse failureResponse_;
    Responder responder_;
};

}  // namespace platform
