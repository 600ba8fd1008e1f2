#include "netchasm/Worker.h"
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace netchasm {

using std::chrono::milliseconds;

namespace {

/// Trying again would meet the same.
bool isFinal( HM_REASON reason ) {
   return reason == HM_REASON_NO_VERDICT || reason == HM_REASON_TLS_FILES || reason == HM_REASON_SETTINGS;
}

/// More about a failure than its reason says; empty when there is no more.
std::string detailOf( const Check * check, const Outcome & outcome ) {
   if ( outcome.reason == HM_REASON_CONNECT_REFUSED )
      return {};
   if ( outcome.systemError != 0 )
      return std::generic_category().message( outcome.systemError );
   if ( check && ( outcome.reason == HM_REASON_TLS_HANDSHAKE || outcome.reason == HM_REASON_TLS_VERIFY ) )
      return check->detail();
   return {};
}

} // namespace

Worker::Worker(
      unsigned number, const Log & log, SocketCalls & calls, std::shared_ptr< HMStorageObserver > observer )
      : number_{ number },
        log_{ log },
        observer_{ std::move( observer ) },
        checks_{ calls, -1, {} },
        faults_{ log },
        spread_{ number * 7919ULL },
        results_( resultsPerBatch ) {}

Worker::~Worker() {
   if ( thread_.joinable() ) {
      {
         const std::lock_guard lock{ mutex_ };
         stop_ = true;
      }
      wake();
      thread_.join();
   }
   for ( auto & pools : pools_ )
      pools.clear();
   if ( wakeUp_ >= 0 )
      ::close( wakeUp_ );
   if ( checks_.epoll >= 0 )
      ::close( checks_.epoll );
}

bool Worker::start() {
   checks_.epoll = ::epoll_create1( EPOLL_CLOEXEC );
   wakeUp_ = ::eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.ptr = nullptr;
   if ( checks_.epoll < 0 || wakeUp_ < 0 ||
         ::epoll_ctl( checks_.epoll, EPOLL_CTL_ADD, wakeUp_, &event ) != 0 )
      return false;
   // Signals are for the threads of whoever embeds the engine.
   sigset_t all, before;
   ::sigfillset( &all );
   ::pthread_sigmask( SIG_SETMASK, &all, &before );
   int failure = 0;
   try {
      thread_ = std::thread{ [this] { run(); } };
      ::pthread_setname_np( thread_.native_handle(), fmt::format( "netchasm/{}", number_ ).c_str() );
   } catch ( const std::system_error & e ) {
      failure = e.code().value();
   }
   ::pthread_sigmask( SIG_SETMASK, &before, nullptr );
   errno = failure;
   return failure == 0;
}

void Worker::post( std::vector< Command > commands ) {
   {
      const std::lock_guard lock{ mutex_ };
      std::move( commands.begin(), commands.end(), std::back_inserter( mailbox_ ) );
      ++asked_;
   }
   wake();
}

void Worker::settle() {
   std::unique_lock lock{ mutex_ };
   const std::uint64_t round = asked_;
   settled_.wait( lock, [&] { return done_ >= round; } );
}

void Worker::wake() {
   const std::uint64_t one = 1;
   // The counter cannot overflow: the worker reads it back to zero.
   static_cast< void >( !::write( wakeUp_, &one, sizeof( one ) ) );
}

void Worker::run() {
   epoll_event events[256];
   now_ = Clock::now();
   nextTrim_ = now_ + trimPeriod;
   TimePoint woke = now_;
   while ( true ) {
      const int timeoutMs = waitMs();
      const int count = ::epoll_wait( checks_.epoll, events, std::size( events ), timeoutMs );
      now_ = Clock::now();
      const Duration overrun = now_ - woke - milliseconds{ timeoutMs };
      if ( overrun > overrunBound )
         checks_.lost += 2 * overrun; // the wait may have hidden part of the stop
      woke = now_;
      moreEvents_ = count == static_cast< int >( std::size( events ) );
      bool commands = false;
      for ( int i = 0; i < count; ++i ) {
         if ( !events[i].data.ptr ) {
            commands = true;
            continue;
         }
         auto & check = *static_cast< Check * >( events[i].data.ptr );
         if ( const auto outcome = check.onEvents( events[i].events ) )
            finish( *check.host(), *outcome );
      }
      flushResults();
      if ( commands ) {
         takeCommands(); // before checks start: somebody waits
         if ( stopped_ )
            break;
      }
      runTimers();
      flushResults();
      if ( now_ >= nextTrim_ )
         trimPools();
   }
   abandonAll();
}

void Worker::abandonAll() {
   while ( !timers_.empty() )
      release( timers_.front(), false );
}

int Worker::waitMs() const {
   TimePoint wakeAt = nextTrim_;
   if ( !timers_.empty() )
      wakeAt = std::min( wakeAt, atTick( timers_.earliest() ) );
   const TimePoint now = Clock::now();
   if ( wakeAt <= now )
      return 0;
   return static_cast< int >( std::chrono::ceil< milliseconds >( wakeAt - now ).count() );
}

void Worker::runTimers() {
   std::size_t started = 0;
   // Between ticks events are handled and nothing else: what is due then starts together at the next tick.
   while ( !timers_.empty() && atTick( timers_.earliest() ) <= now_ && started < startsPerTurn ) {
      Host & host = timers_.front();
      if ( host.state == State::waiting ) {
         ++started;
         begin( host );
      } else if ( const TimePoint deadline = host.check->deadline(); deadline > now_ ) {
         timers_.schedule( host, deadline ); // connected meanwhile, or got time back
      } else if ( moreEvents_ && now_ - deadline < stallBound ) {
         timers_.schedule( host, now_ + tick ); // its reply may be among them
      } else {
         finish( host, host.check->timedOut() );
      }
   }
}

void Worker::begin( Host & host ) {
   if ( !host.retrying ) {
      const Duration late = now_ - host.due;
      delays_.count( late );
      if ( late > lateBound( host.group->interval ) ) {
         finish( host, { HM_RESPONSE_NOT_CHECKED, HM_REASON_NO_VERDICT, ETIME, "schedule" } );
         return;
      }
      host.retriesLeft = host.group->retries;
   }
   if ( const auto outcome = attempt( host ) )
      finish( host, *outcome );
}

std::optional< Outcome > Worker::attempt( Host & host ) {
   host.check = takeCheck( *host.pool ).release();
   host.state = State::running;
   timers_.schedule( host, now_ + host.group->connectTimeout );
   auto outcome = host.check->start( host, now_ );
   if ( outcome && ( outcome->systemError == EMFILE || outcome->systemError == ENFILE ) && closeIdle() )
      outcome = host.check->start( host, now_ );
   return outcome;
}

std::unique_ptr< Check > Worker::takeCheck( ConnectionPool & pool ) {
   if ( pool.idle.empty() )
      return std::make_unique< Check >( checks_, pool );
   auto check = std::move( pool.idle.back() );
   pool.idle.pop_back();
   pool.leastIdle = std::min( pool.leastIdle, pool.idle.size() );
   return check;
}

void Worker::finish( Host & host, const Outcome & ended ) {
   const Outcome outcome = host.check ? host.check->blamed( ended ) : ended;
   if ( host.probe ) {
      probeEnd( host, outcome );
      return;
   }
   const bool answered = outcome.response == HM_RESPONSE_ANSWERED;
   const bool retry = !answered && !isFinal( outcome.reason ) && host.retriesLeft > 0;
   ++host.numChecks;
   switch ( outcome.response ) {
   case HM_RESPONSE_ANSWERED:
      ++host.numResponses;
      break;
   case HM_RESPONSE_CONNECT_FAILURE:
      ++host.numConnectFailures;
      break;
   case HM_RESPONSE_TIMEOUT:
      ++host.numTimeouts;
      break;
   case HM_RESPONSE_NONE:
   case HM_RESPONSE_FAILURE:
   case HM_RESPONSE_NOT_CHECKED:
      ++host.numFailures;
      break;
   }
   report( host, host.check, outcome, retry ? HM_REASON_NO_VERDICT : outcome.reason );
   if ( !answered )
      logOutcome( host, host.check, outcome, !retry );
   release( host, answered );
   if ( retry ) {
      --host.retriesLeft;
      host.retrying = true;
      host.retryAt = now_ + std::max< Duration >( host.group->retryDelay, tick );
      wait( host );
   } else {
      waitForNext( host );
   }
}

void Worker::report( const Host & host, const Check * check, const Outcome & outcome, HM_REASON reason ) {
   if ( !observer_ )
      return;
   HMCheckData & data = results_[resultCount_];
   fill( data, host, check, outcome, reason );
   if ( ++resultCount_ == results_.size() )
      flushResults();
}

void Worker::fill( HMCheckData & data, const Host & host, const Check * check, const Outcome & outcome,
      HM_REASON reason ) const {
   data.m_hostName = host.name;
   data.m_hostGroupName = host.group->name;
   data.m_response = outcome.response;
   data.m_reason = reason;
   const bool answered = outcome.response == HM_RESPONSE_ANSWERED;
   data.m_responseCode = answered ? check->response().statusCode() : 0;
   if ( answered )
      data.m_responsePayload = check->response().body();
   else
      data.m_responsePayload.clear();
   data.m_numChecks = host.numChecks;
   data.m_numResponses = host.numResponses;
   data.m_numConnectFailures = host.numConnectFailures;
   data.m_numFailures = host.numFailures;
   data.m_numTimeouts = host.numTimeouts;
   const Duration took = check ? now_ - check->started() : Duration{ 0 };
   data.m_responseTimeMs = static_cast< std::uint32_t >( std::chrono::round< milliseconds >( took ).count() );
   data.m_checkTime.setTime(
         HMTimeStamp::now().getTimeSinceEpoch() -
         static_cast< unsigned long >( std::chrono::floor< milliseconds >( took ).count() ) );
}

void Worker::logOutcome( const Host & host, const Check * check, const Outcome & outcome, bool last ) {
   if ( outcome.response == HM_RESPONSE_NOT_CHECKED && outcome.systemError != 0 ) {
      const std::string what =
            outcome.systemError == ETIME
                  ? std::string{ "this machine is too slow for its checks, some have no verdict" }
                  : fmt::format( "checks are held back: {}: {}", outcome.call,
                          std::generic_category().message( outcome.systemError ) );
      faults_.report( what, host.name, now_ );
      return;
   }
   if ( !log_.enabled( HM_LOG_DETAIL ) )
      return;
   const std::string detail = detailOf( check, outcome );
   log_.write( HM_LOG_DETAIL, "host {} in group {}: {}{}{}{}", host.name, host.group->name,
         HMReasonText( outcome.reason ), detail.empty() ? "" : ": ", detail, last ? "" : "; trying again" );
}

void Worker::flushResults() {
   for ( std::size_t i = 0; i < resultCount_; ++i ) {
      if ( !observer_->storeHostCheckResult( results_[i] ) )
         faults_.report( "the storage observer refused a result", results_[i].m_hostName, now_ );
   }
   resultCount_ = 0;
}

void Worker::release( Host & host, bool answered ) {
   std::unique_ptr< Check > check{ host.check };
   host.check = nullptr;
   timers_.cancel( host );
   if ( check && check->release( answered ) )
      check->home().idle.push_back( std::move( check ) );
}

void Worker::wait( Host & host ) {
   host.state = State::waiting;
   timers_.schedule( host, host.next() );
}

void Worker::waitForNext( Host & host ) {
   host.retrying = false;
   host.phase = host.due = nextDue( host.phase, now_, host.group->interval );
   wait( host );
}

bool Worker::closeIdle() {
   std::size_t closed = 0;
   for ( auto & pools : pools_ ) {
      for ( auto & [source, pool] : pools ) {
         closed += pool.idle.size();
         pool.idle.clear();
         pool.leastIdle = 0;
      }
   }
   return closed > 0;
}

void Worker::trimPools() {
   nextTrim_ = now_ + trimPeriod;
   for ( auto & pools : pools_ ) {
      for ( auto & [source, pool] : pools ) {
         // These were not needed once during the whole period.
         pool.idle.resize( pool.idle.size() - std::min( pool.leastIdle, pool.idle.size() ) );
         pool.leastIdle = pool.idle.size();
      }
   }
}

void Worker::takeCommands() {
   std::uint64_t count = 0;
   static_cast< void >( !::read( wakeUp_, &count, sizeof( count ) ) );
   std::vector< Command > commands;
   std::uint64_t round = 0;
   {
      const std::lock_guard lock{ mutex_ };
      commands.swap( mailbox_ );
      round = asked_;
      stopped_ = stop_;
   }
   now_ = Clock::now();
   for ( Command & command : commands )
      execute( command );
   {
      const std::lock_guard lock{ mutex_ };
      done_ = round;
   }
   settled_.notify_all();
}

void Worker::execute( Command & command ) {
   Host & host = *command.host;
   switch ( command.kind ) {
   case Command::Kind::take:
   case Command::Kind::group:
      settingsIs( host, std::move( command.group ) );
      if ( host.target != command.target ) {
         probesEnd( host );
         abandon( host );
         host.target = command.target;
      }
      prepare( host );
      return;
   case Command::Kind::target:
      if ( host.target == command.target )
         return;
      probesEnd( host );
      abandon( host );
      if ( host.retrying && host.target.address != command.target.address ) {
         host.retrying = false;
         host.due = now_;
         wait( host );
      }
      host.target = command.target;
      prepare( host );
      return;
   case Command::Kind::probe:
      probe( host, std::move( command.done ) );
      return;
   case Command::Kind::drop:
   case Command::Kind::move:
      probesEnd( host );
      abandon( host );
      timers_.cancel( host );
      return;
   }
}

/// Checks a stand-in of the host.
void Worker::probe( const Host & host, HMProbeDone done ) {
   auto standIn = std::make_unique< Host >( host.name );
   standIn->group = host.group;
   standIn->target = host.target;
   standIn->authority = host.authority;
   standIn->pool = host.pool;
   standIn->probe = std::make_unique< Probe >( Probe{ std::move( done ), &host } );
   probes_.push_back( std::move( standIn ) );
   Host & probed = *probes_.back();
   if ( !probed.ready() )
      probeEnd( probed, { HM_RESPONSE_NOT_CHECKED, HM_REASON_NO_VERDICT } );
   else if ( const auto outcome = attempt( probed ) )
      finish( probed, *outcome );
}

void Worker::probeEnd( Host & standIn, const Outcome & outcome ) {
   const auto at = std::ranges::find( probes_, &standIn, &std::unique_ptr< Host >::get );
   const std::unique_ptr< Host > host = std::move( *at );
   probes_.erase( at );
   const TimePoint started = host->check ? host->check->started() : now_;
   const auto after = [started]( TimePoint reached ) {
      const auto took = std::chrono::round< std::chrono::microseconds >( reached - started );
      return reached == TimePoint{} ? 0 : static_cast< std::uint32_t >( std::max( took.count(), 1L ) );
   };
   HMProbeReport report;
   fill( report.m_check, *host, host->check, outcome, outcome.reason );
   report.m_address = host->target.address;
   report.m_mark = host->target.mark;
   report.m_connectUs = after( host->probe->connected );
   report.m_tlsUs = after( host->probe->secured );
   report.m_firstByteUs = after( host->probe->firstByte );
   report.m_totalUs = host->check ? after( Clock::now() ) : 0;
   report.m_detail = detailOf( host->check, outcome );
   release( *host, outcome.response == HM_RESPONSE_ANSWERED );
   host->probe->done( report );
}

/// Ends what somebody asked about the host: its packets must not outlive a change.
void Worker::probesEnd( const Host & host ) {
   for ( std::size_t i = probes_.size(); i-- > 0; ) {
      if ( probes_[i]->probe->of == &host )
         probeEnd( *probes_[i], { HM_RESPONSE_NOT_CHECKED, HM_REASON_NO_VERDICT } );
   }
}

/// The host's settings; its schedule follows where they differ from those it had, maybe at another worker.
void Worker::settingsIs( Host & host, std::shared_ptr< const HostGroup > settings ) {
   if ( host.group ) {
      const HostGroup & before = *host.group;
      const Duration interval = settings->interval;
      if ( interval < before.interval ) {
         host.phase = dueAfterIntervalChange( host.phase, now_, interval );
         if ( host.state == State::waiting )
            host.due = dueAfterIntervalChange( host.due, now_, interval );
      } else if ( interval > before.interval ) {
         // Phases of the shorter interval would crowd one part of the longer one.
         host.phase = firstDue( now_, spreadFraction( spread_++ ), interval ).phase;
      }
      host.retriesLeft = std::min( host.retriesLeft, settings->retries );
      host.retryAt = std::min( host.retryAt, now_ + std::max< Duration >( settings->retryDelay, tick ) );
      if ( settings->port != before.port )
         host.ticket.session.reset(); // another server
   }
   host.group = std::move( settings );
   if ( host.state == State::waiting )
      wait( host );
}

/// Ends a running check unreported; the host is then due at once.
void Worker::abandon( Host & host ) {
   if ( host.state != State::running )
      return;
   release( host, false );
   host.due = host.retryAt = now_;
   wait( host );
}

/// Brings what follows from settings and target up to date, and the host's state in line with its readiness.
void Worker::prepare( Host & host ) {
   if ( !host.ready() ) {
      abandon( host );
      timers_.cancel( host );
      host.state = State::quiet;
      host.retrying = false;
      return;
   }
   const HMIPAddress::Family family = host.target.address.family();
   const HMIPAddress source = host.group->source.family() == family ? host.group->source : HMIPAddress{};
   host.pool = &pools_[family == HMIPAddress::Family::ipv6][source];
   host.authority = host.group->authority( host.target.address );
   if ( host.state == State::quiet ) {
      const FirstDue times = firstDue( now_, spreadFraction( spread_++ ), host.group->interval );
      host.due = times.first;
      host.phase = times.phase;
      wait( host );
   }
}

} // namespace netchasm
