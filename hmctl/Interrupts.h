#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>

namespace hmctl {

/// The operator stopped what was going on. A text says what that may have left open; most often there is
/// none.
struct Interrupted : std::runtime_error {
   explicit Interrupted( const char * what = "" ) : std::runtime_error( what ) {}
};

/// While one of these lives, Ctrl-C ends a waitFor() with Interrupted in place of the process. At most one at
/// a time.
class Interrupts {
 public:
   Interrupts();
   ~Interrupts();
   Interrupts( const Interrupts & ) = delete;
   Interrupts & operator=( const Interrupts & ) = delete;
};

/// Waits until `fd` (-1: none) is ready for `events` of poll(); false after `timeout`. Throws Interrupted.
bool waitFor( int fd, short events, std::optional<std::chrono::milliseconds> timeout = std::nullopt );

} // namespace hmctl
