// RemoverPreview [ARGUMENT...]: what `RemoverTool ARGUMENT...` would do,
// without changing anything. Run as root, with the remover's own command line.
#include <string>
#include <vector>

#include "platform/ProcessInfo.h"
#include "preview/RemoverPreview.h"

int main(int argc, char** argv)
{
    platform::ProcessInfo::setArguments(argc, argv);
    const std::vector<std::string> removerArguments(argv + 1, argv + argc);
    if (RemoverPreview::isFirstProcessOfAPreview()) {
        return RemoverPreview::runRemoverAsFirstProcess(removerArguments);
    }
    return RemoverPreview::run(removerArguments, stdout, stderr);
}
