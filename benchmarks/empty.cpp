// Ends at once; with an argument, stops first to be looked at.

#include <csignal>

int main(int argc, char* /*argv*/[]) {
  return argc > 1 ? raise(SIGSTOP) : 0;
}
