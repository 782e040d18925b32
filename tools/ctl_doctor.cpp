// ovanictl doctor: whether the gateway is sound, and what is wrong.

#include "tools/ovanictl.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <unistd.h>

#include "tools/doctor.h"
#include "tools/json.h"
#include "tools/text.h"

namespace {

void print_json(const std::vector<Finding> &findings)
{
    Json rows = Json::array();
    for (const Finding &finding : findings) {
        rows.push_back({{"severity", severity_word(finding.severity)},
                        {"subject", finding.subject},
                        {"text", finding.text}});
    }
    const Json report = {
        {"schema", JSON_SCHEMA}, {"state", severity_word(worst_of(findings))}, {"findings", std::move(rows)}};
    puts(json_text(report, 1).c_str());
}

void print_lines(const std::vector<Finding> &findings)
{
    const bool coloured = isatty(STDOUT_FILENO) != 0;
    for (const Finding &finding : findings) {
        static constexpr const char *colours[] = {"\033[32m", "\033[33m", "\033[31m"};
        const char *colour = coloured ? colours[static_cast<size_t>(finding.severity)] : "";
        printf("%s%-7s%s  %-8s  %s\n", colour, severity_word(finding.severity), coloured ? "\033[m" : "",
               finding.subject, printable(finding.text).c_str());
    }
}

// The exit status: 0 sound, 1 warnings, 2 faults.
int examine_and_tell(const CtlOptions &options, bool json)
{
    setenv("OVANI_LOG_LEVEL", "emerg", 1); // what is wrong stands in the findings
    const std::vector<Finding> findings = examine(options.socket_or_null());
    json ? print_json(findings) : print_lines(findings);
    return static_cast<int>(worst_of(findings));
}

} // namespace

void add_doctor_command(CLI::App &app, const CtlOptions &options)
{
    auto json = std::make_shared<bool>(false);
    CLI::App *doctor = app.add_subcommand("doctor", "Tell whether the gateway is sound, and what is wrong");
    doctor->footer("Looks only, and changes nothing. Exit status: 0 sound, 1 warnings, 2 faults.");
    doctor->add_flag("--json", *json, "as a JSON object");
    doctor->callback([json, &options] { throw CLI::RuntimeError(examine_and_tell(options, *json)); });
}
