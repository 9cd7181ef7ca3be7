// What libcurl is told: once for a slot, and before each exchange. Included by .cc files only.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <new>
#include <stdexcept>

#include "engines/http/curl_transport.h"
#include "engines/http/detail/hop.h"

namespace engines::http::detail {

/// Sets an option. Throws `std::bad_alloc` where there is no memory for it.
template <class Value>
void set(CURL* easy, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) throw std::logic_error(curl_easy_strerror(code));
}

struct FreeHeaders {
  void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeHeaders>;

/// Lists that libcurl reads during the exchange and does not own.
struct HeaderLists {
  HeaderList to_server;
  HeaderList to_proxy;
};

/// Sets what is the same for every exchange with the origin.
void set_up(CURL* easy, const Origin& origin, const PoolOptions& options);

/// Sets what the exchange sends, but for the body itself. The lists and the hop's URL must outlive
/// the exchange.
HeaderLists set_request(CURL* easy, const Hop& hop, const PoolOptions& options);

/// Whether the request is sent as one with a body, empty or not.
bool announces_body(const Hop& hop);

}  // namespace engines::http::detail
