#include "engines/http/detail/curl_slot.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

namespace engines::http::detail {
namespace {

void initialise_libcurl() {
  // Never undone: another user of libcurl in the process may still need it.
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (code != CURLE_OK) throw std::bad_alloc();
}

constexpr double LONGEST_S = 1e6;

std::atomic<unsigned> forks = 0;  // between the first process and this one
const int atfork_error = pthread_atfork(nullptr, nullptr, [] { ++forks; });

}  // namespace

Clock::duration duration_of(double seconds) {
  if (!(seconds > 0)) return Clock::duration::zero();
  return std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(std::min(seconds, LONGEST_S)));
}

unsigned process_number() noexcept { return forks; }

Slot::Slot() {
  if (atfork_error != 0) throw std::bad_alloc();
  initialise_libcurl();
  multi_ = curl_multi_init();
  easy_ = curl_easy_init();
  if (multi_ == nullptr || easy_ == nullptr) {
    curl_easy_cleanup(easy_);
    curl_multi_cleanup(multi_);
    throw std::bad_alloc();
  }
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 1L);
  curl_easy_setopt(easy_, CURLOPT_CLOSESOCKETFUNCTION, &on_close);
  curl_easy_setopt(easy_, CURLOPT_CLOSESOCKETDATA, this);
}

Slot::~Slot() {
  if (!is_ours()) return;
  curl_multi_remove_handle(multi_, easy_);
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
}

void Slot::renew_easy() {
  static const bool is_mended = curl_version_info(CURLVERSION_NOW)->version_num >= 0x080101;
  if (is_mended) return;
  CURL* const fresh = curl_easy_duphandle(easy_);
  if (fresh == nullptr) throw std::bad_alloc();
  curl_easy_cleanup(easy_);
  easy_ = fresh;
}

curl_socket_t Slot::open_socket(const curl_sockaddr& address) {
  sockets_.reserve(sockets_.size() + 1);
  const int opened = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
  if (opened >= 0) sockets_.push_back(opened);
  return opened;
}

int Slot::on_close(void* self, curl_socket_t socket) noexcept {
  std::erase(static_cast<Slot*>(self)->sockets_, socket);
  return close(socket);
}

void Slot::cut_off() const noexcept {
  for (const curl_socket_t socket : sockets_) shutdown(socket, SHUT_RDWR);
}

bool Slot::receives(int within_ms) const noexcept {
  if (sockets_.empty()) return false;
  pollfd connection{.fd = sockets_.back(), .events = POLLIN, .revents = 0};
  return poll(&connection, 1, within_ms) != 0;
}

bool Slot::is_ours() const noexcept { return owner_ == process_number(); }

}  // namespace engines::http::detail
