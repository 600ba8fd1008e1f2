#include "hmctl/Doctor.h"

#include "hmctl/DoctorCollect.h"
#include "hmctl/Output.h"
#include "hmctl/Session.h"

#include <set>

#include <fmt/format.h>

namespace hmctl {

void doctor( Session & session, const Invocation & given, Output & output ) {
   using Json = nlohmann::json;
   const auto facts = doctorCollect( session );
   const auto findings = doctorFindings( facts );
   std::set<Address> servers;
   for ( const auto & group : facts.groups ) {
      servers.insert( group.servers.begin(), group.servers.end() );
   }
   if ( given.has( "--json" ) ) {
      Json list = Json::array();
      for ( const auto & each : findings ) {
         list.push_back(
               { { "subject", each.subject }, { "problem", each.problem }, { "advice", each.advice } } );
      }
      const Json all{
            { "groups", facts.groups.size() }, { "servers", servers.size() }, { "findings", list } };
      output.write( all.dump( 2, ' ', false, Json::error_handler_t::replace ) + "\n" );
   } else if ( facts.groups.empty() ) {
      output.write( "no group is probed through a virtual address: there is nothing to look at\n" );
   } else if ( findings.empty() ) {
      output.write( fmt::format( "nothing is wrong; groups with a virtual address: {}, their servers: {}\n",
            facts.groups.size(), servers.size() ) );
   } else {
      for ( const auto & each : findings ) {
         output.write( fmt::format( "{}: {}; {}\n", each.subject, each.problem, each.advice ) );
      }
   }
   if ( !findings.empty() ) {
      output.end();
      throw Refused( fmt::format( "to be put right: {}", findings.size() ) );
   }
}

} // namespace hmctl
