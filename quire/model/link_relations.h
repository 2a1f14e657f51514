// Link-relation and category identifiers of the service's Atom documents. They are compared by
// exact, case-sensitive equality.
#pragma once

namespace kestrel {
namespace quire {

#define QUIRE_SCHEMA_NAMESPACE "http://schemas.quire.example"

// The scheme and host of every schema identifier below.
inline constexpr char SchemaNamespace[] = QUIRE_SCHEMA_NAMESPACE;

inline constexpr char kBatchRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#batch";
inline constexpr char kResumableCreateMediaRel[] =
    QUIRE_SCHEMA_NAMESPACE "/g/2005#resumable-create-media";
inline constexpr char kFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#feed";
inline constexpr char kPostRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#post";
inline constexpr char kLabelsScheme[] = QUIRE_SCHEMA_NAMESPACE "/g/2005/labels";
inline constexpr char kStarredLabelTerm[] = QUIRE_SCHEMA_NAMESPACE "/g/2005/labels#starred";
inline constexpr char kAclFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/acl/2007#accessControlList";
inline constexpr char kRevisionsFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/docs/2007/revisions";
inline constexpr char kResumableEditMediaRel[] =
    QUIRE_SCHEMA_NAMESPACE "/g/2005#resumable-edit-media";

#undef QUIRE_SCHEMA_NAMESPACE

}  // namespace quire
}  // namespace kestrel
