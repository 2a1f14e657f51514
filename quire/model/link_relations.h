/// @file
/// Link-relation and category identifiers of the service's Atom documents. They are compared by
/// exact, case-sensitive equality.
#pragma once

namespace kestrel {
namespace quire {

/// The text of SchemaNamespace, for building the constants below; undefined again at the end of
/// this header.
#define QUIRE_SCHEMA_NAMESPACE "http://schemas.quire.example"

/// The scheme and host of every schema identifier below.
inline constexpr char SchemaNamespace[] = QUIRE_SCHEMA_NAMESPACE;

/// Relation of a feed's "link" to its batch address (DocsFeed::batch_link).
inline constexpr char kBatchRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#batch";
/// Relation of a feed's "link" to the address where a resumable upload creates a new document
/// (DocsFeed::resumable_create_media_link).
inline constexpr char kResumableCreateMediaRel[] =
    QUIRE_SCHEMA_NAMESPACE "/g/2005#resumable-create-media";
/// Relation of a feed's "link" to the feed itself (DocsFeed::feed_link).
inline constexpr char kFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#feed";
/// Relation of a feed's "link" to the address where a POST creates a document
/// (DocsFeed::post_link).
inline constexpr char kPostRel[] = QUIRE_SCHEMA_NAMESPACE "/g/2005#post";
/// Scheme of an entry's "category" elements that carry labels (DocsEntry::starred).
inline constexpr char kLabelsScheme[] = QUIRE_SCHEMA_NAMESPACE "/g/2005/labels";
/// Term of the label category that marks a starred document (DocsEntry::starred).
inline constexpr char kStarredLabelTerm[] = QUIRE_SCHEMA_NAMESPACE "/g/2005/labels#starred";
/// Relation of an entry's "qr:feedLink" to its access-control list (DocsEntry::acl_feed_link).
inline constexpr char kAclFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/acl/2007#accessControlList";
/// Relation of an entry's "qr:feedLink" to its revisions (DocsEntry::revisions_feed_link).
inline constexpr char kRevisionsFeedRel[] = QUIRE_SCHEMA_NAMESPACE "/docs/2007/revisions";
/// Relation of an entry's "link" to the address where a resumable upload of new content starts
/// (DocsEntry::resumable_edit_media_link).
inline constexpr char kResumableEditMediaRel[] =
    QUIRE_SCHEMA_NAMESPACE "/g/2005#resumable-edit-media";

#undef QUIRE_SCHEMA_NAMESPACE

}  // namespace quire
}  // namespace kestrel
