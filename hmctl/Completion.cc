#include "hmctl/Completion.h"

#include "hmctl/Words.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace hmctl {

namespace {

using Json = nlohmann::json;
using Kind = Choice::Kind;

const char * const groupsPath = "healthMonitor/config/serverConfig/nhgConfig";

class Completer {
 public:
   Completer( Completions & out, Lookup & lookup ) : out_( out ), lookup_( lookup ) {}

   void add( Choice choice ) {
      if ( choice.kind == Kind::hint || choice.text.starts_with( out_.begun ) ) {
         out_.choices.push_back( std::move( choice ) );
      }
   }

   void filters( const std::vector<std::string> & before ) {
      if ( before.empty() ) {
         add( { Kind::word, "json", "JSON rather than text" } );
         add( { Kind::word, "match", "only the lines that a regular expression matches" } );
      } else if ( before.size() == 1 && std::string_view( "match" ).starts_with( before.front() ) ) {
         add( { Kind::hint, "REGEX", "POSIX extended regular expression" } );
      }
   }

   void command( const std::vector<std::string> & before, const std::vector<Command> & commands ) {
      std::vector<std::vector<std::string>> names;
      for ( const auto & each : commands ) {
         names.push_back( each.words );
      }
      const auto expansion = expand( before, names );
      using Outcome = Expansion::Outcome;
      if ( expansion.outcome == Outcome::ambiguous || expansion.outcome == Outcome::unknown ) {
         return;
      }
      const bool argumentsBegun = std::ranges::any_of(
            expansion.arguments, []( const std::string & word ) { return !word.starts_with( "-" ); } );
      std::set<std::string> seen;
      for ( const auto i : expansion.candidates ) {
         const auto & words = commands[i].words;
         if ( words.size() > expansion.at && !argumentsBegun && seen.insert( words[expansion.at] ).second ) {
            const bool last = words.size() == expansion.at + 1;
            add( { Kind::word, words[expansion.at], last ? commands[i].help : "…" } );
         }
      }
      if ( expansion.outcome == Outcome::found ) {
         arguments( commands[expansion.command], expansion.arguments );
      }
   }

 private:
   void arguments( const Command & command, const std::vector<std::string> & before ) {
      std::vector<std::string> given;
      std::set<std::string> flags;
      for ( const auto & word : before ) {
         word.size() > 1 && word.front() == '-' ? void( flags.insert( word ) ) : given.push_back( word );
      }
      const auto & all = command.arguments;
      const bool repeats = !all.empty() && all.back().repeated;
      const auto at = repeats ? std::min( given.size(), all.size() - 1 ) : given.size();
      if ( at < all.size() ) {
         argument( command, at, given );
      }
      for ( const auto & flag : command.flags ) {
         if ( !flags.contains( flag.name ) ) {
            add( { Kind::flag, flag.name, flag.help } );
         }
      }
      const bool complete = at >= all.size() || all[at].beginsGroup || all[at].repeated;
      if ( complete && out_.begun.empty() ) {
         if ( command.takesJson() ) {
            add( { Kind::hint, "| json", "JSON rather than text" } );
         }
         add( { Kind::hint, "<Enter>", "run it" } );
      }
   }

   void argument( const Command & command, std::size_t at, const std::vector<std::string> & given ) {
      const auto & wanted = command.arguments[at];
      if ( wanted.keyword ) {
         add( { Kind::word, wanted.name } );
      } else if ( wanted.name == "PATH" ) {
         path( command.paths );
      } else if ( wanted.name == "KEY" ) {
         keys( given.front(), wanted.help );
      } else if ( wanted.name == "ATTRIBUTE" ) {
         for ( const auto & each : list( ask( given.front(), {}, true ), "attributes" ) ) {
            if ( text( each, "kind" ) != "child" ) {
               add( { Kind::word, text( each, "name" ), describe( each ) } );
            }
         }
      } else if ( wanted.name == "VALUE" ) {
         value( given, wanted.help );
      } else if ( wanted.name == "NHG" ) {
         keys( groupsPath, wanted.help );
      } else if ( wanted.name == "SERVER" ) {
         keys( std::string( groupsPath ) + "/" + pathComponent( given.back() ) + "/serverIp", wanted.help );
      } else if ( wanted.name == "FACILITY" ) {
         for ( const auto & name : lookup_.facilities() ) {
            add( { Kind::word, name, wanted.help } );
         }
      } else if ( wanted.name == "FILE" ) {
         files();
      } else {
         add( { Kind::hint, wanted.name, wanted.help } );
      }
   }

   static std::string text( const Json & json, const char * name ) { return json.value( name, "" ); }
   static Json list( const Json & json, const char * name ) { return json.value( name, Json::array() ); }

   static std::string describe( const Json & attribute ) {
      const auto kind = text( attribute, "kind" );
      const auto type = text( attribute, "type" );
      return kind == "scalar" ? type : kind == "child" ? "entity" : kind + " of " + type;
   }

   Json ask( const std::string & path, const std::string & begin, bool configurationOnly ) {
      auto answer =
            lookup_.complete( path.substr( 0, path.find_last_not_of( '/' ) + 1 ), begin, configurationOnly );
      out_.more = out_.more || answer.value( "more", false );
      return answer;
   }

   void keys( const std::string & path, const std::string & help ) {
      for ( const auto & key : list( ask( path, out_.begun, false ), "keys" ) ) {
         add( { Kind::word, key.get<std::string>(), help } );
      }
   }

   void path( Command::Paths paths ) {
      const auto slash = out_.begun.rfind( '/' );
      const auto base = slash == std::string::npos ? std::string{} : out_.begun.substr( 0, slash );
      const auto before = base.empty() ? std::string{} : base + "/";
      const auto tail = out_.begun.substr( before.size() );
      // What is behind a "%" may be half of an escape; the rest is compared here.
      const auto answer = ask( base, tail.substr( 0, tail.find( '%' ) ), paths != Command::Paths::all );
      for ( const auto & each : list( answer, "attributes" ) ) {
         const auto kind = text( each, "kind" );
         if ( paths == Command::Paths::all || kind == "child" || kind == "collection" ||
               ( paths == Command::Paths::keyed && kind == "set" ) ) {
            const bool goesOn = kind == "child" || kind == "collection";
            const auto name = text( each, "name" );
            add( { Kind::word, before + name + ( goesOn ? "/" : "" ), describe( each ), name, goesOn } );
         }
      }
      if ( const auto kind = text( answer, "kind" ); kind == "beginning" || kind == "collection" ) {
         for ( const auto & key : list( answer, "keys" ) ) {
            const auto name = pathComponent( key.get<std::string>() );
            add( { Kind::word, before + name + "/", {}, name, true } );
         }
      }
   }

   void value( const std::vector<std::string> & given, const std::string & help ) {
      for ( const auto & each : list( ask( given[0], {}, true ), "attributes" ) ) {
         if ( text( each, "name" ) != given[1] ) {
            continue;
         }
         const auto type = text( each, "type" );
         if ( type == "boolean" ) {
            add( { Kind::word, "false" } );
            add( { Kind::word, "true" } );
         } else if ( type.find( " | " ) != type.npos ) {
            for ( std::size_t at = 0; at < type.size(); ) {
               const auto end = std::min( type.find( " | ", at ), type.size() );
               add( { Kind::word, type.substr( at, end - at ) } );
               at = end + 3;
            }
         } else {
            add( { Kind::hint, "VALUE", describe( each ) } );
         }
         return;
      }
      add( { Kind::hint, "VALUE", help } );
   }

   void files() {
      namespace fs = std::filesystem;
      const auto slash = out_.begun.rfind( '/' );
      const auto before = slash == std::string::npos ? std::string{} : out_.begun.substr( 0, slash + 1 );
      std::error_code error;
      constexpr int mostFiles = 1000;
      int count = 0;
      for ( fs::directory_iterator at( before.empty() ? "." : before, error ), end;
            !error && at != end && count < mostFiles; at.increment( error ), ++count ) {
         const auto name = at->path().filename().string();
         std::error_code unknown;
         const bool folder = at->is_directory( unknown );
         if ( name.front() != '.' || out_.begun.size() > before.size() ) {
            add( { Kind::word, before + name + ( folder ? "/" : "" ), {}, name + ( folder ? "/" : "" ),
                  folder } );
         }
      }
      out_.more = count == mostFiles;
      std::ranges::sort( out_.choices, {}, &Choice::text );
   }

   Completions & out_;
   Lookup & lookup_;
};

} // namespace

bool Completions::freeText() const {
   return quoteOpen || ( !begun.empty() && std::ranges::any_of( choices, []( const Choice & choice ) {
      return choice.kind == Kind::hint;
   } ) );
}

std::vector<const Choice *> Completions::insertable() const {
   std::vector<const Choice *> words;
   for ( const auto & choice : choices ) {
      if ( choice.kind == Kind::word || ( choice.kind == Kind::flag && begun.starts_with( "-" ) ) ) {
         words.push_back( &choice );
      }
   }
   return words;
}

Completions completions( std::string_view line, const std::vector<Command> & commands, Lookup & lookup ) {
   const auto parts = split( line );
   Completions out;
   out.quoteOpen = parts.quoteOpen;
   out.begin = line.size();
   std::vector<std::string> before;
   for ( const auto & word : parts.stages.back() ) {
      before.push_back( word.text );
   }
   if ( parts.wordOpen ) {
      out.begun = before.back();
      out.begin = parts.stages.back().back().begin;
      before.pop_back();
   }
   Completer completer( out, lookup );
   if ( parts.stages.size() > 1 ) {
      completer.filters( before );
   } else {
      completer.command( before, commands );
   }
   return out;
}

std::string choiceList( const Completions & completions, std::size_t rows ) {
   auto shown = []( const Choice & choice ) -> const std::string & {
      return choice.shown.empty() ? choice.text : choice.shown;
   };
   const auto & choices = completions.choices;
   const auto count = choices.size() > rows ? std::max<std::size_t>( rows, 2 ) - 1 : choices.size();
   std::size_t width = 0;
   for ( std::size_t i = 0; i < count; ++i ) {
      width = std::max( width, shown( choices[i] ).size() );
   }
   std::string text;
   for ( std::size_t i = 0; i < count; ++i ) {
      auto name = shown( choices[i] );
      if ( !choices[i].help.empty() ) {
         name.resize( width, ' ' );
         name += "  " + choices[i].help;
      }
      text += "  " + name + "\n";
   }
   if ( completions.more || count < choices.size() ) {
      text += "  … and " +
              ( completions.more ? "more" : std::to_string( choices.size() - count ) + " more" ) + "\n";
   }
   return text;
}

} // namespace hmctl
