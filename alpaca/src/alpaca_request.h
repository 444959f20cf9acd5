// Reading an Alpaca request: parameters (GET query names case-insensitive,
// PUT parameters from the form-encoded body), transaction ids, and typed
// values. A missing or unparsable parameter is a BadRequest (HTTP 400).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace alpaca {

struct HttpRequest;

// Answered as HTTP 400 with the text as a plain-text body.
struct BadRequest : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class AlpacaRequest {
public:
    // Throws BadRequest when the parameters cannot be decoded (a broken % escape, not UTF-8).
    explicit AlpacaRequest(const HttpRequest& req);

    bool isPut() const { return put_; }
    // The parameter's value, or nullopt when absent.
    std::optional<std::string> find(const std::string& name) const;
    // Required parameters; throw BadRequest when missing or unparsable.
    std::string text(const std::string& name) const;
    int32_t integer(const std::string& name) const;
    bool boolean(const std::string& name) const;

    // Echoed in every answer: 0 when missing or not a valid unsigned 32-bit number.
    uint32_t clientTransactionId() const { return clientTransactionId_; }

private:
    bool put_ = false;
    std::multimap<std::string, std::string> params_;  // GET: lower-case names; PUT: as sent
    uint32_t clientTransactionId_ = 0;
};

// Strict unsigned 32-bit parse of a whole string.
std::optional<uint32_t> parseUint32(const std::string& text);
// Strict signed 32-bit parse of a whole string.
std::optional<int32_t> parseInt32(const std::string& text);

}  // namespace alpaca
