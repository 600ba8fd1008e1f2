#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace hmctl {

/// An IPv4 or IPv6 address; family 4, 6, or 0 for none. Bytes in network order.
struct Address {
   int family = 0;
   std::array<std::uint8_t, 16> bytes{};

   static std::optional<Address> fromText( const std::string & text );
   std::string text() const;
   bool empty() const { return family == 0; }
   bool unspecified() const; // none, or all zero
   auto operator<=>( const Address & ) const = default;
};

/// The first and the last address of a prefix.
std::pair<Address, Address> addressRange( const Address & address, unsigned length );

/// What a rule of the packet filter may look at.
struct FilteredPacket {
   enum class Protocol : std::uint8_t { tcp, icmp, other }; // icmp: ICMPv6 of an IPv6 packet
   int family = 4;
   Protocol protocol = Protocol::tcp;
   Address destination{};
   std::uint32_t mark = 0;
   unsigned icmpType = 0;
};

/// The rules of this machine's packet filter, as far as they decide what goes to netfilter queue 0: native
/// ones as `nft -j list ruleset` prints them, and those of iptables as iptables-nft-save does. Rules of other
/// kinds, and conditions that are not known here, are passed over; of a rule that queues, jumps or has both
/// known and unknown conditions the unknown ones count as met.
class FilterRules {
 public:
   /// A hook that hands the packet to queue 0.
   struct Queued {
      std::string hook{}; // "prerouting", "output", …
      std::string type{}; // "filter", "route" or "nat"
      int priority = 0;
      bool bypass = false; // the packet passes when nobody serves the queue
      std::string chain{}; // where the rule stands, for people
   };

   /// False when the text is not what the program prints; then nothing was added.
   bool nftAdd( const std::string & json );
   void iptablesAdd( const std::string & text, int family );

   std::vector<Queued> queued( const FilteredPacket & packet ) const;

 private:
   // Values from first to last, or all others.
   template<class T>
   struct Test {
      std::vector<std::pair<T, T>> ranges{};
      bool negated = false;
      bool met( const T & value ) const;
   };
   struct MarkTest {
      Test<std::uint32_t> test{};
      std::uint32_t mask = ~std::uint32_t{ 0 };
   };
   enum class Verdict : std::uint8_t { next, accept, drop, leave, jump, queue };
   struct Rule {
      int family = 0; // 0: both
      std::vector<Test<FilteredPacket::Protocol>> protocols{};
      std::vector<MarkTest> marks{};
      std::vector<Test<Address>> destinations{};
      std::vector<Test<unsigned>> icmpTypes{};
      bool unknown = false; // it has conditions that are not known here
      Verdict verdict = Verdict::next;
      std::string target{}; // of a jump: key of the chain
      bool bypass = false;
   };
   struct Chain {
      std::string name{}; // for people
      std::string hook{}; // empty: only jumped to
      std::string type{};
      int priority = 0;
      std::vector<Rule> rules{};
   };
   struct Outcome {
      Verdict verdict = Verdict::next;
      bool bypass = false;
      std::string chain{};
   };
   class NftReader;
   class IptablesReader;

   static bool meets( const Rule & rule, const FilteredPacket & packet );
   Outcome walk( const Chain & chain, const FilteredPacket & packet, int depth ) const;

   std::map<std::string, Chain> chains_;
};

} // namespace hmctl
