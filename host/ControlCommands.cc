#include "host/ControlClient.h"

#include "host/ControlLines.h"
#include "host/ControlProtocol.h"
#include "host/ControlQueries.h"
#include "host/ControlRun.h"
#include "host/HostStatus.h"
#include "host/StateWriter.h"

#include <map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;

namespace {

using Json = nlohmann::json;

// Thrown by the readers of a request's members, and caught where the request is read.
struct BadRequest {
   std::string reason;
};

class ReadyAnswer final : public Answer {
 public:
   explicit ReadyAnswer( std::string text ) : text_( std::move( text ) ) {}
   bool produce( std::string & out ) override {
      out += text_;
      return false;
   }

 private:
   const std::string text_;
};

class GetAnswer final : public Answer {
 public:
   GetAnswer( StateWriter::Format format, std::vector<StateWriter::Section> sections )
         : writer_( format, std::move( sections ) ) {}
   bool produce( std::string & out ) override {
      constexpr std::size_t pieceBytes = 4096;
      std::string piece;
      bool more = true;
      while ( more && piece.size() < pieceBytes ) {
         more = writer_.write( piece );
      }
      out += textLine( piece );
      if ( !more ) {
         out += doneLine();
      }
      return more;
   }

 private:
   StateWriter writer_;
};

class ChangeAnswer final : public Answer {
 public:
   // Shared with the callback, which may outlive the answer when the client goes away.
   struct Result {
      std::optional<ChangeOutcome> outcome;
   };
   explicit ChangeAnswer( std::shared_ptr<Result> result ) : result_( std::move( result ) ) {}
   bool ready() const override { return result_->outcome.has_value(); }
   bool produce( std::string & out ) override {
      const auto & outcome = *result_->outcome;
      out += outcome.errors.empty() ? jsonLine( { { "done", true }, { "changes", outcome.changes } } )
                                    : refusedLine( outcome.errors );
      return false;
   }

 private:
   const std::shared_ptr<Result> result_;
};

std::string textMember( const Json & request, const char * name, bool optional = false ) {
   const auto found = request.find( name );
   if ( found == request.end() && optional ) {
      return {};
   }
   if ( found == request.end() || !found->is_string() ) {
      throw BadRequest{ fmt::format( "the request has no text \"{}\"", name ) };
   }
   return found->get<std::string>();
}

bool flagMember( const Json & request, const char * name ) {
   const auto found = request.find( name );
   if ( found != request.end() && !found->is_boolean() ) {
      throw BadRequest{ fmt::format( "\"{}\" of the request is neither true nor false", name ) };
   }
   return found != request.end() && found->get<bool>();
}

void apply( ControlClient &, const Json & json, ControlRequest & request ) {
   const auto bytes = json.find( "documentBytes" );
   request.fatal = true; // until it is known how many bytes to take as the document
   if ( bytes == json.end() || !bytes->is_number_unsigned() ) {
      throw BadRequest{ "the request has no number \"documentBytes\"" };
   }
   if ( bytes->get<std::uint64_t>() > control::maxDocumentBytes ) {
      throw BadRequest{ fmt::format( "the document is larger than {} bytes", control::maxDocumentBytes ) };
   }
   ChangeRequest change;
   change.source = textMember( json, "file" );
   change.checkOnly = flagMember( json, "check" );
   request.fatal = false;
   request.documentBytes = bytes->get<std::size_t>();
   request.change = std::move( change );
}

void set( ControlClient & client, const Json & json, ControlRequest & request ) {
   ChangeRequest change;
   change.kind = ChangeRequest::Kind::set;
   change.path = textMember( json, "path" );
   change.attribute = textMember( json, "attribute" );
   change.value = textMember( json, "value" );
   request.answer = changeAnswer( client, std::move( change ), nullptr );
}

void del( ControlClient & client, const Json & json, ControlRequest & request ) {
   ChangeRequest change;
   change.kind = ChangeRequest::Kind::remove;
   change.path = textMember( json, "path" );
   change.value = textMember( json, "key" );
   request.answer = changeAnswer( client, std::move( change ), nullptr );
}

void get( ControlClient & client, const Json & json, ControlRequest & request ) {
   const auto & services = client.server().services();
   const auto path = textMember( json, "path", true );
   const auto format = textMember( json, "format", true );
   const bool configurationOnly = flagMember( json, "configuration" );
   if ( !format.empty() && format != "yaml" && format != "json" ) {
      throw BadRequest{ "\"format\" of the request is neither \"yaml\" nor \"json\"" };
   }
   services.statusRefresh();
   std::vector<StateWriter::Section> sections;
   bool aboveRoots = false;
   for ( const auto & root : services.schema->roots() ) {
      if ( !pathIsAtOrBelow( root.path, path ) ) {
         continue;
      }
      aboveRoots = true;
      if ( root.outsideWrites || !configurationOnly ) {
         SchemaPlace place{ root.path };
         place.type = root.type;
         sections.push_back( { place, services.entityManager->entity( root.path ) } );
      }
   }
   if ( !aboveRoots ) {
      SchemaPlace place;
      if ( const auto refusal = services.schema->resolve( path, place ) ) {
         throw BadRequest{ *refusal };
      }
      const auto entity = entityAt( *services.entityManager, place );
      if ( place.member ) {
         throw BadRequest{ place.path() + ": names a member of a set; name the set" };
      }
      if ( !entity ) {
         throw BadRequest{ place.path() + ": there is no such entry" };
      }
      if ( place.outsideWrites || !configurationOnly ) {
         sections.push_back( { place, entity } );
      }
   }
   if ( sections.empty() ) {
      throw BadRequest{ path + ": holds no configuration" };
   }
   request.answer = std::make_unique<GetAnswer>(
         format == "json" ? StateWriter::Format::json : StateWriter::Format::yaml, std::move( sections ) );
}

void watch( ControlClient & client, const Json & json, ControlRequest & request ) {
   const auto & services = client.server().services();
   auto path = textMember( json, "path", true );
   const bool initial = flagMember( json, "initial" );
   bool aboveRoots = false;
   for ( const auto & root : services.schema->roots() ) {
      aboveRoots = aboveRoots || pathIsAtOrBelow( root.path, path );
   }
   if ( !aboveRoots ) {
      SchemaPlace place;
      if ( const auto refusal = services.schema->resolve( path, place ) ) {
         throw BadRequest{ *refusal };
      }
      path = place.path();
   }
   services.statusRefresh();
   request.answer = watchAnswer( client, path, initial );
}

void cleanState( ControlClient & client, const Json &, ControlRequest & request ) {
   const auto message = client.server().services().cleanState();
   request.answer = message.empty() ? std::make_unique<ReadyAnswer>( textLine( "clean\n" ) + doneLine() )
                                    : refusedAnswer( message );
}

void run( ControlClient & client, const Json & json, ControlRequest & request ) {
   const auto format = textMember( json, "format", true );
   if ( !format.empty() && format != "text" && format != "json" ) {
      throw BadRequest{ "\"format\" of the request is neither \"text\" nor \"json\"" };
   }
   request.answer = runAnswer( client, textMember( json, "text" ), format == "json" );
}

void agentCommands( ControlClient & client, const Json &, ControlRequest & request ) {
   const auto & directory = *client.server().services().commandDirectory;
   request.answer = std::make_unique<ReadyAnswer>( commandsLine( directory ) + doneLine() );
}

void complete( ControlClient & client, const Json & json, ControlRequest & request ) {
   request.answer = completionAnswer( client.server().services(), textMember( json, "path", true ),
         textMember( json, "begin", true ), flagMember( json, "configuration" ) );
}

void trace( ControlClient &, const Json & json, ControlRequest & request ) {
   const bool change = json.contains( "facility" ) || json.contains( "levels" );
   request.answer = std::make_unique<ReadyAnswer>(
         change ? traceLevelsIs( textMember( json, "facility" ), textMember( json, "levels" ) )
                : traceTable() );
}

using Command = void ( * )( ControlClient &, const Json &, ControlRequest & );
const std::map<std::string, Command, std::less<>> commands{
      { "apply", apply },
      { "clean-state", cleanState },
      { "commands", agentCommands },
      { "complete", complete },
      { "del", del },
      { "get", get },
      { "run", run },
      { "set", set },
      { "trace", trace },
      { "watch", watch },
};

} // namespace

std::string refusedLine( const std::vector<std::string> & reasons ) {
   return jsonLine( { { "refused", reasons } } );
}

std::unique_ptr<Answer> refusedAnswer( const std::string & reason ) {
   return std::make_unique<ReadyAnswer>( refusedLine( { reason } ) );
}

std::unique_ptr<Answer> changeAnswer(
      ControlClient & client, ChangeRequest request, std::shared_ptr<void> share ) {
   const auto & services = client.server().services();
   if ( services.configQueue->full() ) {
      return refusedAnswer( "too many changes are waiting" );
   }
   const auto result = std::make_shared<ChangeAnswer::Result>();
   const bool checkOnly = request.checkOnly;
   services.configQueue->submit( std::move( request ),
         [result, share, checkOnly, asker = Ptr<ControlClient>( &client ), ended = services.changeEnded,
               whenStored = services.whenStored]( const ChangeOutcome & outcome ) {
            const auto answer = [result, asker, outcome] {
               result->outcome = outcome;
               asker->wake();
            };
            if ( checkOnly ) {
               answer();
               return;
            }
            ended( outcome );
            whenStored( answer );
         } );
   return std::make_unique<ChangeAnswer>( result );
}

ControlRequest controlRequest( ControlClient & client, std::string_view text ) {
   ControlRequest request;
   try {
      const auto json = Json::parse( text, nullptr, false );
      if ( !json.is_object() ) {
         throw BadRequest{ "the request is not a JSON object" };
      }
      const auto command = commands.find( textMember( json, "command" ) );
      if ( command == commands.end() ) {
         std::string names;
         for ( const auto & [name, run] : commands ) {
            names += ( names.empty() ? "" : ", " ) + name;
         }
         throw BadRequest{ fmt::format( "no such command; there are {}", names ) };
      }
      command->second( client, json, request );
   } catch ( const BadRequest & bad ) {
      request.answer = refusedAnswer( bad.reason );
      request.change.reset();
   }
   return request;
}

} // namespace host
