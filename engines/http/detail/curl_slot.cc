#include "engines/http/detail/curl_slot.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

bool Slot::Socket::is_open() const noexcept {
  struct stat found {};
  return fstat(number, &found) == 0 && S_ISSOCK(found.st_mode) && found.st_ino == inode;
}

curl_socket_t Slot::open_socket(const curl_sockaddr& address) {
  std::erase_if(sockets_, [](const Socket& socket) { return !socket.is_open(); });
  sockets_.reserve(sockets_.size() + 1);
  const int number = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
  struct stat made {};
  if (number >= 0 && fstat(number, &made) == 0) sockets_.push_back({number, made.st_ino});
  return number;
}

int Slot::on_close(void* self, curl_socket_t socket) noexcept {
  std::erase_if(static_cast<Slot*>(self)->sockets_,
                [=](const Socket& one) { return one.number == socket; });
  return close(socket);
}

void Slot::cut_off() const noexcept {
  constexpr sockaddr NOWHERE{.sa_family = AF_UNSPEC, .sa_data = {}};
  for (const Socket& socket : sockets_) {
    if (!socket.is_open()) continue;
    // connect(2) to nowhere dissolves the connection; a shutdown leaves what has been received.
    if (connect(socket.number, &NOWHERE, sizeof NOWHERE) != 0) shutdown(socket.number, SHUT_RDWR);
  }
}

bool Slot::is_ready(short events, int within_ms) const noexcept {
  const auto last = std::find_if(sockets_.rbegin(), sockets_.rend(),
                                 [](const Socket& socket) { return socket.is_open(); });
  if (last == sockets_.rend()) return false;
  pollfd connection{.fd = last->number, .events = events, .revents = 0};
  return poll(&connection, 1, within_ms) != 0;
}

bool Slot::is_ours() const noexcept { return owner_ == process_number(); }

}  // namespace engines::http::detail
