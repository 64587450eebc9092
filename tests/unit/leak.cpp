// Leaks on purpose: the leak check must fail this program.

#include <cstdlib>

int main() {
  void* volatile lost = std::malloc(1234);
  lost = nullptr;
  return lost == nullptr ? 0 : 1;
}
