#include "Report.h"

#include <cstdlib>

#include "Complaints.h"
#include "JsonReport.h"
#include "TableReport.h"

namespace tsmon {

int FailedOutput(std::ostream& err)
{
    err << "zor-tsmon: standard output could not be written\n";
    return EXIT_FAILURE;
}

int Report(const std::string& path, const Outcome& outcome, const ReportStyle& style,
           std::ostream& out, std::ostream& err)
{
    const bool hasServices = !outcome.table.Services().empty();
    if (style.format == Format::JSON) {
        PrintJson(path, outcome, out);
    } else if (hasServices || (outcome.stopped && outcome.failure.empty())) {
        PrintTable(outcome, style.width, out);
    }
    if (outcome.lacksClock && outcome.counts.packets > 0) {
        err << "zor-tsmon: " << path << ": carries no PCR to play it by: read at full speed\n";
    }
    const std::vector<std::string> complaints = ComplaintsOf(outcome);
    for (const std::string& complaint : complaints) {
        err << "zor-tsmon: " << path << ": " << complaint << '\n';
    }
    if (!out.flush()) {
        return FailedOutput(err);
    }
    return complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace tsmon
