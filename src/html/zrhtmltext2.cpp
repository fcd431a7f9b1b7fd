#include "html/zrhtmltext2.h"

#include "markup/zrwrite.h"

void ZrHTML_text2::Write(std::ostream& stream) const {
  WritePrologue(stream);
  zr::Put(stream, text_);
}

void ZrHTML_text2::WriteText(std::ostream& stream) const { zr::Put(stream, text_); }
