#pragma once

#include "host/Schema.h"
#include "platform/EntityManager.h"

#include <optional>
#include <string>
#include <vector>

namespace host {

/// Writes the state below some places as text, in pieces, so that whoever reads slowly makes the writer wait
/// and not the process. Between two pieces the state may change: the walk goes on at the next key above the
/// last one, and an entry that has gone is written as far as it was. The values of an entity that stand
/// beside each other in its description are in one piece, so that they are of one moment.
///
/// Main thread only; holds the entities that it is in.
class StateWriter {
 public:
   /// `yaml` gives a document that can be applied again, as far as its paths are configuration; `json` the
   /// same as one object by paths.
   enum class Format { yaml, json };
   struct Section {
      SchemaPlace place;
      platform::Ptr<platform::Entity> entity;
   };

   StateWriter( Format format, std::vector<Section> sections );

   /// Appends some of the text (a few hundred bytes beyond the values of an entity at most); false once all
   /// of it was written.
   bool write( std::string & out );

   /// The JSON object of one entity on one line, written in one go; empty when it would take more than
   /// `maxBytes` with its indentation.
   static std::optional<std::string> entityJson(
         const platform::Ptr<platform::Entity> & entity, std::size_t maxBytes );

 private:
   struct Frame {
      platform::Ptr<platform::Entity> entity;
      const platform::AttributeInfo * attribute = nullptr; // set or collection; null: the entity's attributes
      std::size_t next = 0;                                // attribute of the entity
      std::optional<std::string> after = std::nullopt;     // bookmark in the keys
      bool any = false;                                    // something was written in it
   };

   void attribute( const platform::Ptr<platform::Entity> & entity, const platform::AttributeInfo & info,
         const std::string & name, std::string & out );
   void name( const std::string & name, std::string & out );
   void enter( Frame frame, bool empty, std::string & out );
   void leave( std::string & out );
   void newLine( std::string & out ) const;

   const Format format_;
   const std::vector<Section> sections_;
   std::size_t section_ = 0;
   std::vector<Frame> frames_;
   bool begun_ = false;
   bool any_ = false; // a section was written
};

/// A scalar as JSON writes it.
std::string scalarJson( const platform::ScalarInfo & scalar, const platform::Entity & entity );

} // namespace host
