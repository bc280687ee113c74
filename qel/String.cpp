#include "qel/String.h"

#include <time.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "qel/Exception.h"
#include "qel/Ptr.h"

namespace Qel {

String::String(const char* cstr) : String(cstr, cstr ? std::strlen(cstr) : 0) {}

String::String(const char* data, std::size_t size) : rep_(nullptr) {
  if (size == 0) return;
  if (size > UINT32_MAX - kOverheadBytes) throwRangeException("string too long");
  // One block holds the header, the bytes and a terminating NUL.
  void* block = std::malloc(offsetof(Rep, chars) + size + 1);
  if (!block) throw std::bad_alloc();
  rep_ = static_cast<Rep*>(block);
  new (&rep_->refs) std::atomic<std::uint32_t>(1);
  rep_->size = static_cast<std::uint32_t>(size);
  std::memcpy(rep_->chars, data, size);
  rep_->chars[size] = '\0';
}

String& String::operator=(const String& o) noexcept {
  if (rep_ != o.rep_) {
    o.newRef();
    deleteRef();
    rep_ = o.rep_;
  }
  return *this;
}

String& String::operator=(String&& o) noexcept {
  if (this != &o) {
    deleteRef();
    rep_ = o.rep_;
    o.rep_ = nullptr;
  }
  return *this;
}

void String::release(Rep* rep) noexcept {
  std::free(rep);
}

std::ostream& operator<<(std::ostream& os, const String& s) {
  return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

namespace {
Seconds systemUtcNow() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
Seconds (*clockFunction)() = &systemUtcNow;
}  // namespace

Seconds utcNow() {
  return clockFunction();
}

void utcNowFunctionIs(Seconds (*clock)()) {
  clockFunction = clock ? clock : &systemUtcNow;
}

}  // namespace Qel
