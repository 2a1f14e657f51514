// The QObject on the driver's thread that Qt's event loop delivers the driver's wake-ups to. The
// hook reaches it by name through a queued invocation (QMetaObject::invokeMethod), so no object of
// ours is handed from the posting thread to Qt's event queue: Qt makes and frees the queued call.
#pragma once

#include <QObject>
#include <functional>
#include <utility>

namespace kestrel {
namespace quire {

class QtEventLoopReceiver : public QObject {
  Q_OBJECT

 public:
  explicit QtEventLoopReceiver(std::function<void()> run) : run_(std::move(run)) {}

  // What a queued wake-up runs, on the receiver's thread.
  Q_INVOKABLE void Run() { run_(); }

 private:
  std::function<void()> run_;
};

}  // namespace quire
}  // namespace kestrel
