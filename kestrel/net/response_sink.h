/// @file
/// A destination for a response body that takes it piece by piece as it arrives, with a bounded
/// amount of memory between the network and the destination.
#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace net {

/// A destination for a response body that takes it piece by piece as it arrives, instead of the
/// request's ByteBuffer. A caller sets it in NetworkRequest::Info::response_sink; the transport
/// then hands the body of a successful (2xx) final answer to it, and the caller's functions see it
/// on the main loop's thread:
/// - `on_head(http_status, header_lines)` once, before the first body byte, with the answer's
///   status and header lines ("Name: value"). Returning false refuses the body: nothing more is
///   delivered and the transfer is stopped.
/// - `on_piece(data, size)` for each piece, in order. Returning false (the destination failed, a
///   disk is full) likewise stops the delivery and the transfer.
///
/// Between the transport's thread and the main loop the pieces wait in a ring of `capacity` bytes
/// (allocated once). When it is full the transport pauses the transfer (libcurl stops reading the
/// socket, so TCP slows the server down) and resumes it when the main loop has emptied half of it:
/// memory stays bounded whatever the speeds of the network and of the destination.
///
/// Answers that are not 2xx (an error document) and bodies of requests without a sink go to the
/// ByteBuffer as before. A transfer stopped by the sink completes with status::kErrorUnknown; its
/// sink's stopped() tells why. The request's completion runs after every delivered piece.
///
/// Counted: the caller holds one reference from construction and the request takes another while
/// it lives; Release() drops one. Allocated through the default memory manager. The producer side
/// (Push...) is for transports and may run on any one thread; the rest is for the main thread.
class KESTREL_EXPORT ResponseSink {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Receives the head of the answer; false refuses the body.
  using HeadFunction = std::function<bool(int http_status, const std::vector<QString>& headers)>;
  /// Receives one piece of the body; false stops the transfer.
  using PieceFunction = std::function<bool(const char* data, std::size_t size)>;

  /// The smallest ring: room for two of the built-in transport's receive buffers.
  static constexpr std::size_t kMinCapacity = std::size_t{1} << 20;

  /// A sink whose ring holds `capacity` bytes (at least kMinCapacity). One reference, the
  /// caller's.
  ResponseSink(std::size_t capacity, HeadFunction on_head, PieceFunction on_piece);
  ResponseSink(const ResponseSink&) = delete;
  ResponseSink& operator=(const ResponseSink&) = delete;

  /// Takes a reference. Any thread.
  void AddRef();
  /// Drops a reference; the last one destroys the sink. Any thread.
  void Release();

  /// Stops the delivery: no function is called any more and the transfer is stopped at its next
  /// piece (a paused one is woken for that). Main thread. Idempotent.
  void Stop();
  /// Whether the delivery was stopped (by Stop(), or because a function returned false).
  bool stopped() const;
  /// Body bytes handed to `on_piece` so far.
  std::uint64_t delivered() const;
  /// The most bytes that ever waited in the ring at once (for tests of the memory bound).
  std::size_t peak_queued() const;
  /// The ring's size in bytes.
  std::size_t capacity() const;

  /// @name The producer side, for transports
  ///@{

  /// What Push() did with the bytes.
  enum class PushResult {
    kTaken,    ///< all of them are queued
    kFull,     ///< none: the ring lacks room; pause and push them again after the waker ran
    kStopped,  ///< none: the delivery was stopped; abort the transfer
  };
  /// Queues the answer's head for `on_head`; once per request, before the first Push().
  void PushHead(int http_status, std::vector<QString> headers);
  /// Queues a piece, all of it or nothing. A piece larger than the ring is taken when the ring is
  /// empty (the ring grows to hold it).
  PushResult Push(const char* data, std::size_t size);
  /// Sets the function that the sink calls (from the main thread, under its lock, so it must not
  /// call back into the sink) when a producer that was refused with kFull may push again (the
  /// ring is half empty, or the delivery stopped).
  /// An empty function detaches the producer: once this returns the old one is never called again.
  void SetWaker(std::function<void()> waker);
  ///@}

 private:
  ~ResponseSink();
  void Drain();
  void PostDrainLocked();

  mutable std::mutex mutex_;
  volatile long ref_count_ = 1;
  HeadFunction on_head_;
  PieceFunction on_piece_;
  std::function<void()> waker_;
  char* ring_ = nullptr;
  std::size_t capacity_;
  std::size_t head_ = 0;  // where the oldest queued byte is
  std::size_t queued_ = 0;
  std::size_t peak_queued_ = 0;
  bool head_pending_ = false;
  int http_status_ = 0;
  std::vector<QString> headers_;
  bool drain_posted_ = false;
  bool producer_waiting_ = false;
  bool stopped_ = false;
  std::uint64_t delivered_ = 0;
};

}  // namespace net
}  // namespace kestrel
