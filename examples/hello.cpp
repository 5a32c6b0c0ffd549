// Prints the library's log lines to the console and exercises its main queue: the smallest
// program that links the shared library through its public headers.
#include <cstdio>
#include <future>

#include "quorvix/Executor.h"
#include "quorvix/Log.h"
#include "quorvix/QRVBundle.h"
#include "quorvix/Value.h"

int main() {
  using namespace quorvix;
  addLogHandler([](const LogRecord& r) {
    std::printf("[%.*s] %.*s\n", static_cast<int>(r.category.size()), r.category.data(),
                static_cast<int>(r.message.size()), r.message.data());
  });
  QRVBundle bundle = QRVBundle::main();
  std::promise<bool> onMain;
  mainQueue()->post([&] { onMain.set_value(mainQueue()->isCurrent()); });
  auto value = Value::fromJson(R"({"app": "hello", "ok": true})");
  std::printf("host application: %s %s/%s\n", bundle.identifier.c_str(), bundle.name.c_str(),
              bundle.version.c_str());
  std::printf("main queue runs tasks on its own thread: %s\n",
              onMain.get_future().get() ? "yes" : "no");
  std::printf("round trip: %s\n", value ? value->toJson()->c_str() : "failed");
  return 0;
}
