// The properties each fuzz target checks on one input, shared by the libFuzzer targets (which abort
// when one fails) and by the test that replays every seed input in every build of the test suite.
// Each function runs one input through the code under test and returns nullptr when every property
// held, else a short description of the first one that did not.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quire_fuzz {

/// Any bytes through XmlReader: a tree or an error (never both), a well-linked tree no deeper than
/// XmlReader::kMaxDepth and no larger than its source, and no leak.
const char* CheckXmlReaderInput(const std::uint8_t* data, std::size_t size);

/// Any bytes through XmlReader, then DocsFeed::ParseFrom and DocsEntry::ParseFrom on the root: each
/// parser accepts exactly the root element of its name, a feed holds exactly its root's "entry"
/// children (none null), an entry keeps no reserved strings, and no leak.
const char* CheckFeedParseInput(const std::uint8_t* data, std::size_t size);

/// Any answer body through UserInfoService's e-mail handler: exactly one callback with the
/// request's id; status 0 comes with a non-empty address that stands right behind "email=" in the
/// body's text, anything else is status 1 with an empty address; no leak.
const char* CheckUserEmailInput(const std::uint8_t* data, std::size_t size);

/// Header lists made from the bytes through ConnectionUtils::GetHeaderValue and
/// GetResumableStartPos: the value is the rest of the first line that starts with the key, and the
/// position is left alone unless a non-empty "Range" value has a "-".
const char* CheckUploadHeadersInput(const std::uint8_t* data, std::size_t size);

/// The whole resumable upload over a host IConnection, every answer chosen by the bytes: every PUT
/// body is a readable view inside the caller's data, where its Content-Range line says, as long as
/// that range, sent to the "Location" address; exactly one callback, never from inside
/// ResumableUpload; made-up failures carry an empty body; live allocations back to their start.
const char* CheckResumableUploadInput(const std::uint8_t* data, std::size_t size);

}  // namespace quire_fuzz
