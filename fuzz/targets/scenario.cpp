// The simulator's scenario files: checked whole, and refused with a ScenarioError, never anything
// else.
#include "sim/scenario.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        sim::Scenario s = sim::parseScenario(quenby::fuzz::text(data, size));
        for (auto& step : s.steps) sim::substituteServer(step.action, "http://127.0.0.1:8080");
        if (s.server) sim::substituteServer(*s.server, "http://127.0.0.1:8080");
    } catch (const sim::ScenarioError&) {
    }
    return 0;
}
