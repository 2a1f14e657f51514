/// @file
/// Resumable upload: one POST opens an upload and carries its metadata, then PUT requests of at
/// most a fixed chunk size carry the data, each resuming where the server says it has got to.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/i_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// Uploads a block of data of any size with the service's resumable protocol:
///
/// 1. POST to the given URL with the metadata (Atom XML, sent as UTF-8) and the lines
///    "Content-Type: application/atom+xml", `X-Upload-Content-Type: <type>` and
///    `X-Upload-Content-Length: <byte count>`. The server answers with the upload's address in
///    "Location".
/// 2. PUT to that address a chunk of at most chunk_size() bytes starting at position 0, with
///    "Content-Length", "Content-Type" and `Content-Range: bytes <first>-<last>/<total>`.
/// 3. While the server answers 308, read the last position it holds from its "Range" line
///    (`bytes=0-<last>`) and PUT the next chunk starting at that position. The position is used as
///    read, without adding one: the byte the server reports as its last is sent again at the start
///    of the next chunk (servers tolerate the one-byte overlap). Only the server's 308 answers move
///    the upload on; there is no limit on the number of PUTs, no retry and no time-out of its own.
/// 4. A success answer to a PUT ends the upload.
///
/// **Ownership and lifetime.** The connection is not owned: the destructor does nothing with it,
/// and the host keeps it alive for as long as any upload runs. Every request of an upload holds a
/// plain pointer to this object, which must therefore outlive every upload started on it (until its
/// callback has been called). The object keeps no state of its own beyond the chunk size and the
/// connection: all the state of an upload travels in its pending request, so one object runs any
/// number of uploads at once, independently of each other. Instances are allocated through the
/// default memory manager, also with plain `new`.
///
/// **Data.** The data is never copied: every request of an upload holds an implicitly shared copy
/// of the QByteArray, so the bytes stay alive until the upload's last request has completed, and
/// the body of each PUT is a view (QByteArray::fromRawData()) over the chunk's bytes. The caller
/// must not modify the bytes behind a raw-data QByteArray while its upload runs. Positions and
/// lengths of the protocol are unsigned 32-bit numbers, so data of 4 GiB or more cannot be uploaded
/// (see status 2 below).
///
/// **The callback.** Provided that the connection completes every request, the callback passed to
/// ResumableUpload() is called exactly once per upload, never from inside ResumableUpload() itself
/// (the first step always waits for the POST's answer). It receives:
/// - status 0: the upload is complete. NetworkResponseInfo is the last PUT's response unchanged
///   (its request id, its header lines) and the body is the server's answer to that PUT.
/// - status 300, 302, 400 to 416, 500 to 505, or 2 as reported by the connection (a network
///   failure, a time-out, an HTTP status the transport does not pass through): the POST or a PUT
///   failed (a host connection's own non-zero statuses are passed on the same way).
///   NetworkResponseInfo is that request's response unchanged; the body is empty (the server's
///   body is passed on only on success).
/// - status 308 on the POST: passed on as a failure like the ones above (only a PUT may be
///   answered 308 to move the upload on).
/// - status 2 made up here, with null headers and an empty body, when
///   - the POST succeeded but its answer has no "Location" line (the header name is matched
///     exactly, case included);
///   - the data is empty, or a 308 reports that the server already holds every byte ("Range"
///     ending at the total): there is nothing left to send;
///   - a 308 has no readable "Range" (missing, no "-", or not a decimal number after it);
///   - a 308 reports a position beyond the end of the data: the upload ends rather than read
///     outside the data;
///   - the data is 4 GiB or larger (after the POST, before any PUT).
///
///   Its request id is that of the request whose answer was being handled: the POST's id (the one
///   ResumableUpload() returned) while no PUT has been answered, else the last answered PUT's id.
///
/// The response header list and the body are valid only during the call; copy what you keep.
/// Status 1 never reaches this callback.
///
/// **Threading.** Use on the host's main thread only. Each step runs in the completion handler of
/// the step before, on the thread on which the connection delivers completions (the main thread);
/// the object takes no lock.
///
/// Cancelling is the connection's business and reaches only the request whose id the caller holds,
/// the POST's.
///
/// A host that wants to show progress hands in an IConnection that wraps the real one and watches
/// the PUTs go by (the examples do that).
class QUIRE_EXPORT ConnectionUtils {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// `chunk_size` is the largest number of data bytes that one PUT carries; 0 makes every PUT
  /// empty, so that the upload moves only as the server's 308 answers say. `connection` is
  /// borrowed.
  ConnectionUtils(std::uint32_t chunk_size, IConnection* connection);
  /// Does nothing; in particular it leaves the connection alone.
  virtual ~ConnectionUtils();
  ConnectionUtils(const ConnectionUtils&) = delete;
  ConnectionUtils& operator=(const ConnectionUtils&) = delete;

  /// Starts an upload of `data` with the type `content_type`, opened by a POST of `metadata` to
  /// `url` (normally a DocsFeed's resumable_create_media_link, or a DocsEntry's
  /// resumable_edit_media_link to replace its content). Returns the POST's request id as the
  /// connection assigned it; the callback's request id may differ (see above). `callback` must not
  /// be empty; it is called exactly once, later, on the main thread, as the class description
  /// says.
  virtual unsigned int ResumableUpload(const QString& url, const QString& metadata,
                                       const QString& content_type, const QByteArray& data,
                                       ResponseCallback callback);

  /// @name The steps of an upload
  /// ResumableUpload() starts them and each calls the next; a host normally does not call them
  /// itself.
  ///@{

  /// Completion of the POST: on success with a "Location", sends the first chunk to that address.
  void ResumableUploadPostDone(const QString& content_type, const QByteArray& data,
                               ResponseCallback callback, NetworkResponseInfo info,
                               QByteArray body);
  /// Sends the chunk of `data` that starts at `first_position` to `upload_url`. If there is nothing
  /// to send from there (the position is the data's end or beyond), or the data is 4 GiB or larger,
  /// calls `callback` with a made-up failure carrying `failure_request_id` instead.
  void ResumableUploadPut(const QString& upload_url, const QString& content_type,
                          const QByteArray& data, std::uint32_t first_position,
                          std::uint32_t failure_request_id, ResponseCallback callback);
  /// Completion of a PUT: success ends the upload, 308 resumes from the reported position, anything
  /// else ends it with that failure.
  void ResumableUploadPutDone(const QString& upload_url, const QString& content_type,
                              const QByteArray& data, ResponseCallback callback,
                              NetworkResponseInfo info, QByteArray body);
  ///@}

  /// @name Protocol helpers
  /// They use only their arguments.
  ///@{

  /// The value of the first line of `headers` (may be null) that begins with `name`, a colon and
  /// exactly one blank, compared case-sensitively: the rest of the line, unchanged. An empty (not
  /// null) string when there is no list or no such line, so an absent header and an empty one look
  /// the same.
  QString GetHeaderValue(const std::vector<QString>* headers, const QString& name) const;
  /// Reads the last position the server holds from the "Range" line of `headers` (may be null): the
  /// decimal number after the value's first "-". Returns false and leaves `*position` untouched
  /// when there is no value or no "-"; otherwise stores the conversion's result in `*position` (0
  /// when it failed) and returns whether it succeeded. The number is not incremented. `position`
  /// must not be null.
  bool GetResumableStartPos(const std::vector<QString>* headers, std::uint32_t* position) const;
  /// The extra lines of the opening POST: "Content-Type: application/atom+xml",
  /// `X-Upload-Content-Type: <content_type>`, `X-Upload-Content-Length: <data's byte count>`.
  std::vector<QString> GetResumablePostExtraHeaders(const QString& content_type,
                                                    const QByteArray& data) const;
  /// The extra lines of one PUT: `Content-Length: <length>`, `Content-Type: <content_type>`,
  /// `Content-Range: bytes <first>-<first + length - 1>/<total>`, the sum in unsigned 32-bit
  /// arithmetic (a length of 0 at position 0 gives 4294967295).
  std::vector<QString> GetResumablePutExtraHeaders(const QString& content_type,
                                                   std::uint32_t first_position,
                                                   std::uint32_t length, std::uint32_t total) const;
  ///@}

  /// The largest number of data bytes that one PUT carries.
  std::uint32_t chunk_size() const { return chunk_size_; }
  /// The connection every request goes through (borrowed).
  IConnection* connection() const { return connection_; }

 private:
  std::uint32_t chunk_size_;
  IConnection* connection_;
};

}  // namespace quire
}  // namespace kestrel
