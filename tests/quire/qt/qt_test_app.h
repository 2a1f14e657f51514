// The QCoreApplication of a Qt test program and a bounded run of its event loop.
#pragma once

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <functional>

namespace quire_test::qt {

// The process's QCoreApplication, made on first use on the calling (main) thread.
inline QCoreApplication* App() {
  static int argc = 1;
  static char name[] = "quire-qt-test";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* const app = new QCoreApplication(argc, argv);
  return app;
}

// Runs Qt's event loop (exec(), so the thread sleeps until an event comes) until `done()` holds,
// checked after each event batch by a zero-time check, or `seconds` pass. Returns `done()`.
inline bool RunQtLoop(const std::function<bool()>& done, double seconds) {
  QEventLoop loop;
  QTimer deadline;
  deadline.setSingleShot(true);
  QObject::connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
  deadline.start(static_cast<int>(seconds * 1000));
  // The check runs whenever the loop has handled events: Qt's aboutToBlock signal of the thread's
  // dispatcher fires before every sleep, without a polling timer.
  QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
  const QMetaObject::Connection check =
      QObject::connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, &loop, [&] {
        if (done()) loop.quit();
      });
  if (!done()) loop.exec();
  QObject::disconnect(check);
  return done();
}

}  // namespace quire_test::qt
