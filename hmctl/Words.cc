#include "hmctl/Words.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace hmctl {

Line split( std::string_view line ) {
   Line result{ { {} } };
   char quote = 0;
   for ( std::size_t i = 0; i < line.size(); ++i ) {
      const char c = line[i];
      auto & words = result.stages.back();
      if ( !quote && ( c == ' ' || c == '\t' || c == '\n' || c == '\r' ) ) {
         result.wordOpen = false;
         continue;
      }
      if ( !quote && c == '|' ) {
         result.stages.emplace_back();
         result.wordOpen = false;
         continue;
      }
      if ( !result.wordOpen ) {
         words.push_back( { {}, i } );
         result.wordOpen = true;
      }
      if ( quote && c == quote ) {
         quote = 0;
      } else if ( !quote && ( c == '"' || c == '\'' ) ) {
         quote = c;
      } else if ( c == '\\' && quote != '\'' && i + 1 < line.size() &&
                  ( !quote || line[i + 1] == '"' || line[i + 1] == '\\' ) ) {
         words.back().text += line[++i];
      } else {
         words.back().text += c;
      }
   }
   result.quoteOpen = quote != 0;
   return result;
}

std::string quoted( const std::string & word ) {
   if ( !word.empty() && word.find_first_of( " \t\r\n|\"'\\" ) == word.npos ) {
      return word;
   }
   if ( word.find( '\'' ) == word.npos ) {
      return "'" + word + "'";
   }
   std::string text = "\"";
   for ( const char c : word ) {
      text += c == '"' || c == '\\' ? "\\" : "";
      text += c;
   }
   return text + "\"";
}

std::string quotedOpen( const std::string & word ) {
   auto text = quoted( word );
   if ( text != word ) {
      text.pop_back();
   }
   return text;
}

std::string commonBeginning( const std::vector<std::string> & texts ) {
   if ( texts.empty() ) {
      return {};
   }
   auto common = texts.front();
   for ( const auto & text : texts ) {
      const auto [end, other] = std::ranges::mismatch( common, text );
      common.erase( end, common.end() );
   }
   // UTF-8: a character cut short ends in a lead byte with too few continuation bytes behind it.
   const auto & whole = texts.front();
   auto continues = []( char c ) { return ( static_cast<unsigned char>( c ) & 0xC0 ) == 0x80; };
   while ( common.size() < whole.size() && !common.empty() && continues( whole[common.size()] ) ) {
      common.pop_back();
   }
   return common;
}

std::string joined( const std::vector<std::string> & words ) {
   return std::accumulate(
         words.begin(), words.end(), std::string{}, []( std::string text, const std::string & word ) {
            return text.empty() ? word : std::move( text ) + " " + word;
         } );
}

std::string pathComponent( std::string_view key ) {
   constexpr const char * digits = "0123456789ABCDEF";
   std::string text;
   for ( const char c : key ) {
      const auto byte = static_cast<unsigned char>( c );
      if ( c == '/' || c == '%' || byte < 0x20 || byte == 0x7f ) {
         text += { '%', digits[byte >> 4], digits[byte & 15] };
      } else {
         text += c;
      }
   }
   return text;
}

Expansion expand(
      const std::vector<std::string> & words, const std::vector<std::vector<std::string>> & commands ) {
   using Outcome = Expansion::Outcome;
   Expansion result;
   auto & fitting = result.candidates;
   fitting.resize( commands.size() );
   std::iota( fitting.begin(), fitting.end(), 0 );
   auto & depth = result.at;
   bool argumentsBegun = false;

   auto complete = [&] {
      return std::ranges::find_if( fitting, [&]( auto i ) { return commands[i].size() == depth; } );
   };
   auto that = [&]( auto && fits ) {
      std::vector<std::size_t> found;
      std::ranges::copy_if( fitting, std::back_inserter( found ),
            [&]( auto i ) { return commands[i].size() > depth && fits( commands[i][depth] ); } );
      return found;
   };
   for ( const auto & word : words ) {
      if ( argumentsBegun || ( word.size() > 1 && word.front() == '-' ) ) {
         result.arguments.push_back( word );
         continue;
      }
      auto next = that( [&]( const std::string & full ) { return full == word; } );
      if ( next.empty() && complete() == fitting.end() && !word.empty() ) {
         next = that( [&]( const std::string & full ) { return full.starts_with( word ); } );
      }
      std::set<std::string_view> different;
      for ( const auto i : next ) {
         different.insert( commands[i][depth] );
      }
      if ( different.size() == 1 ) {
         fitting = std::move( next );
         ++depth;
      } else if ( different.size() > 1 ) {
         fitting = std::move( next );
         result.outcome = Outcome::ambiguous;
         return result;
      } else if ( complete() == fitting.end() ) {
         result.outcome = Outcome::unknown;
         return result;
      } else {
         argumentsBegun = true;
         result.arguments.push_back( word );
      }
   }
   if ( const auto found = complete(); found != fitting.end() ) {
      result.outcome = Outcome::found;
      result.command = *found;
   }
   return result;
}

} // namespace hmctl
