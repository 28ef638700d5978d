#include <cstdio>
int main() {
  std::puts("qxfront: not built yet");
  return 1;
}
