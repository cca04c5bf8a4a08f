// Cost of mapping overlay IRIs to physical IRIs, done at the start of every provider
// operation.
#include <core/util/IRIHelpers.hpp>

#include <benchmark/benchmark.h>

namespace {

using namespace storage::overlayprovider;

void BM_InnerMostOfNestedOverlayIRI(benchmark::State& state) {
  StorageIRI const iri(u"overlay:<overlay:<mem://s1/>/mid>/docs/reports/2024/a.txt");
  for (auto _ : state) benchmark::DoNotOptimize(getInnerMostURL(iri));
}

void BM_InnerMostOfOverlayIRIWithInnerPath(benchmark::State& state) {
  StorageIRI const iri(u"overlay:<file:///srv/data/>/docs/reports/2024/a.txt");
  for (auto _ : state) benchmark::DoNotOptimize(getInnerMostURL(iri));
}

void BM_InnerMostOfFilteringIRI(benchmark::State& state) {
  StorageIRI const iri(u"sync+file://host/srv/data/docs/reports/2024/a.txt");
  for (auto _ : state) benchmark::DoNotOptimize(getInnerMostURL(iri));
}

void BM_StripHost(benchmark::State& state) {
  StorageIRI const iri(u"mem://s1/docs/reports/2024/a.txt");
  for (auto _ : state) benchmark::DoNotOptimize(stripHostFrom(iri));
}

BENCHMARK(BM_InnerMostOfNestedOverlayIRI);
BENCHMARK(BM_InnerMostOfOverlayIRIWithInnerPath);
BENCHMARK(BM_InnerMostOfFilteringIRI);
BENCHMARK(BM_StripHost);

}  // namespace

BENCHMARK_MAIN();
