#include "service/startup.h"

int main(int argc, char** argv) {
  return corvane::RunProgram(argc, argv);
}
