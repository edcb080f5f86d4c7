#include "remover/TFRemoverTool.h"

TFRemoverTool::~TFRemoverTool() = default;
