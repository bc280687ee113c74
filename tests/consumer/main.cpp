// A program written as a user of the installed package would write it.
#include <cstdio>

#include "qel/LinkQueue.h"
#include "qel/Exception.h"
#include "qel/Strep.h"

int main() {
  Qel::String text = Qel::valueToStrep(0.1);
  Qel::StrepIt it = text.begin();
  double back = 0;
  Qel::strepToValue(it, text.end(), &back);
  if (back != 0.1) return 1;
  try {
    Qel::throwLinkQueueIndexSpaceFull();
  } catch (const Qel::RangeException& e) {
    std::printf("consumer ok: %s %s\n", text.c_str(), e.what());
    return 0;
  }
  return 1;
}
