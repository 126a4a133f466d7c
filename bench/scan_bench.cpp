// What the core costs per accessibility node: a scan of a 1200-element tree
// on the fake desktop, and writing the resulting observation as JSON.
//
// The fake answers reads from memory, but that still costs something, so
// BM_FakeReadsOfOneScan replays exactly the reads of one scan without the
// core. The core's own share per node is
//   (BM_Scan - BM_FakeReadsOfOneScan + BM_WriteObservation) / 1200,
// which scripts/bench prints.
#include <benchmark/benchmark.h>

#include <string>
#include <utility>
#include <vector>

#include "accessibility/window.h"
#include "bridge/json.h"
#include "fake/fake_desktop.h"
#include "observation/scan.h"

namespace quorvel {
namespace {

constexpr int kNodes = 1200;

// A window with 1199 descendants (so the scan visits exactly 1200 elements)
// that look like a form: labels, text fields with values, buttons.
struct Desktop {
    fake::FakeDesktop desktop;
    fake::StandardScene scene{desktop};
    std::vector<fake::ElementId> tree;

    Desktop() {
        tree = desktop.addTree(scene.window, kNodes - 1, 6);
        for (size_t i = 0; i < tree.size(); ++i) {
            switch (i % 4) {
                case 1:
                    desktop.set(tree[i], "AXRole", std::string("AXTextField"));
                    desktop.set(tree[i], "AXValue", "value of field " + std::to_string(i));
                    desktop.set(tree[i], "AXEnabled", true);
                    break;
                case 2:
                    desktop.set(tree[i], "AXRole", std::string("AXButton"));
                    desktop.set(tree[i], "AXDescription", std::string("Press me"));
                    desktop.set(tree[i], "AXTitle", std::string());
                    break;
                default:
                    break;
            }
        }
        desktop.logCalls = false;
    }
};

Desktop& shared() {
    static Desktop d;
    return d;
}

// Every benchmark reports only this counter: the CSV report that
// scripts/bench reads wants the same counters in every row.
void perNode(benchmark::State& state) {
    state.counters["per_node"] = benchmark::Counter(
        static_cast<double>(kNodes), benchmark::Counter::kIsIterationInvariantRate |
                                         benchmark::Counter::kInvert);
}

void BM_Scan(benchmark::State& state) {
    Desktop& d = shared();
    Window window = foreground(d.desktop);
    for (auto _ : state) {
        ScanResult r = scan(d.desktop, window);
        if (r.nodes.size() != kNodes) state.SkipWithError("wrong node count");
        benchmark::DoNotOptimize(r);
    }
    perNode(state);
}
BENCHMARK(BM_Scan)->Unit(benchmark::kMicrosecond);

// The same attribute reads as one scan, straight against the fake.
void BM_FakeReadsOfOneScan(benchmark::State& state) {
    Desktop& d = shared();
    Window window = foreground(d.desktop);
    d.desktop.logCalls = true;
    d.desktop.calls.clear();
    scan(d.desktop, window);
    d.desktop.logCalls = false;
    std::vector<std::pair<Element, std::string>> reads;
    for (const std::string& call : d.desktop.calls) {
        if (call.rfind("copyAttributeValue ", 0) != 0) continue;
        size_t idStart = call.find(' ') + 1, idEnd = call.find(' ', idStart);
        reads.emplace_back(d.desktop.handle(std::stoi(call.substr(idStart, idEnd - idStart))),
                           call.substr(idEnd + 1));
    }
    d.desktop.calls.clear();
    for (auto _ : state) {
        for (const auto& [element, attribute] : reads) {
            AttributeRead r = d.desktop.copyAttributeValue(element, attribute);
            benchmark::DoNotOptimize(r);
        }
    }
    perNode(state);
}
BENCHMARK(BM_FakeReadsOfOneScan)->Unit(benchmark::kMicrosecond);

// The "context" result of that scan, written as the response envelope.
void BM_WriteObservation(benchmark::State& state) {
    Desktop& d = shared();
    Window window = foreground(d.desktop);
    ScanResult scanned = scan(d.desktop, window);
    Json envelope = Json::object();
    envelope["ok"] = true;
    envelope["result"] = JsonObject{
        {"scope", window.scope(d.desktop)},
        {"nodes", std::move(scanned.nodes)},
        {"context", JsonObject{{"application", "Fake Editor"},
                               {"window_title", window.title},
                               {"focused_role", ""},
                               {"focused_value", ""},
                               {"visible_text", std::move(scanned.text)}}},
    };
    for (auto _ : state) {
        std::string out = writeJson(envelope);
        benchmark::DoNotOptimize(out);
    }
    perNode(state);
}
BENCHMARK(BM_WriteObservation)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quorvel
