// Any answer body through the e-mail handler: status 0 comes with a non-empty address that stands
// in the body's text right behind "email="; anything else is status 1 with an empty string.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "kestrel/base/memory_manager.h"
#include "quire/services/user_info_service.h"

namespace {

// Counts Init calls only; the handler under test is called directly.
class NullConnection : public kestrel::quire::IConnection {
 public:
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const kestrel::quire::ConnectionParams&,
                       kestrel::quire::ResponseCallback) override {
    return 0;
  }
  void Cancel(unsigned int) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  {
    kestrel::quire::UserInfoService service(new NullConnection);
    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<int>(size));
    int calls = 0;
    service.GetUserEmailDone(
        [&](kestrel::quire::NetworkResponseInfo info, QString email) {
          ++calls;
          if (info.request_id != 7) std::abort();
          if (info.status == 0) {
            const int nul = body.indexOf('\0');
            const QString text = QString::fromLatin1(nul >= 0 ? body.left(nul) : body);
            const int key = text.indexOf(QLatin1String("email="));
            if (email.isEmpty() || key < 0 || text.mid(key + 6, email.size()) != email)
              std::abort();
          } else if (info.status != 1 || !email.isEmpty()) {
            std::abort();
          }
        },
        kestrel::quire::NetworkResponseInfo{7, 0, nullptr}, body);
    if (calls != 1) std::abort();
  }
  if (kestrel::MemoryManager::Default()->live_allocations() != live) std::abort();
  return 0;
}
