// SPDX-License-Identifier: Apache-2.0
#include "sending.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include "process_figures.h"
#include "tests/support/bags.h"
#include "world.h"

namespace telvora::bench {
namespace {

// The output of telvora-bench-sender.
struct SenderFigures {
    double callerSeconds = 0;
    double processSeconds = 0;
    double seconds = 0;
    uint64_t busy = 0;
};

SenderFigures runSender(const std::string& socketPath, uint64_t reports, size_t threads) {
    const test::Finished sender = test::runToEnd(
        {{TELVORA_BENCH_SENDER, socketPath, std::to_string(reports), std::to_string(threads)}, {}});
    if (sender.status != 0 || sender.output.size() != 1)
        throw std::runtime_error(sender.errors.empty() ? "the sender failed" : sender.errors.front());
    SenderFigures figures;
    std::istringstream(sender.output.front()) >> figures.callerSeconds >> figures.processSeconds >>
        figures.seconds >> figures.busy;
    return figures;
}

Dictionary measure(uint64_t reports, size_t threads) {
    World world(test::openBag());
    const auto daemon = world.start();
    const double cpuBefore = cpuSeconds(daemon->pid());
    const SenderFigures figures = runSender(daemon->socketPath(), reports, threads);
    const lab::ReportingServer& server = world.laboratory().reports();
    if (!world.laboratory().reports().waitForEvents(reports, test::kPatience) ||
        server.distinctCount() != reports || server.duplicateCount() != 0)
        throw std::runtime_error("a report was lost or arrived twice");
    const double cpu = cpuSeconds(daemon->pid()) - cpuBefore;
    const auto each = [reports](double seconds) { return seconds * 1e6 / static_cast<double>(reports); };
    return {{"threads", threads},
            {"reports", reports},
            {"callerCpuMicrosecondsPerReport", each(figures.callerSeconds)},
            {"processCpuMicrosecondsPerReport", each(figures.processSeconds)},
            {"daemonCpuMicrosecondsPerReport", each(cpu)},
            {"reportsPerSecond", static_cast<double>(reports) / figures.seconds},
            {"refusedAsBusy", figures.busy}};
}

}  // namespace

Array measureSending(const SendingOptions& options) {
    Array figures;
    for (const size_t threads : options.threads)
        figures.push_back(measure(options.reports, threads));
    return figures;
}

}  // namespace telvora::bench
