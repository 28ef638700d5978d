#include <cstdio>
int main() { std::puts("qxcluster: not built yet"); return 1; }
