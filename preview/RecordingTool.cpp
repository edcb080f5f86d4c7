// The stand-in of the package tool and the launch-agent tool while
// RemoverPreview runs the remover: bound over each of them, it records the
// path it was started as and its arguments in the preview's journal, does
// nothing else, prints nothing and exits 0.
#include <cstdio>
#include <string>
#include <vector>

#include "platform/preview/InheritedJournal.h"

int main(int argc, char** argv)
{
    std::vector<std::string> call = {"run"};
    call.insert(call.end(), argv, argv + argc);
    if (!platform::InheritedJournal::appendToInherited(call)) {
        std::fprintf(stderr,
                     "%s: a stand-in that records calls during a preview of the remover; there is no preview "
                     "to record this call in\n",
                     argc > 0 ? argv[0] : "RecordingTool");
        return 1;
    }
    return 0;
}
