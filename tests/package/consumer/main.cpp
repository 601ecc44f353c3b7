// A host program built against the installed package.
#include <qorxmlu/qorxmlu.h>

#include <cstdio>
#include <memory>

int main() {
  QOR::String text(u"Soap error: ");
  std::unique_ptr<QOR::ErrorInfo> error(QOR::MakeError(text, 5));
  QOR::SVArray<int> numbers;
  numbers.Add(1);
  bool ok = error->Text() == QOR::String(u"Soap error: 5") && numbers.Size() == 1;
  std::puts(ok ? "package works" : "package broken");
  return ok ? 0 : 1;
}
