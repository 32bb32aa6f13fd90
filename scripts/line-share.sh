#!/bin/sh
# Non-blank lines of code by area, and the share of tests and fuzz harnesses
# in all of them (the project keeps that share between a quarter and a third).
# Counted: C++ sources and headers, CMake files and .proto schemas under git;
# not counted: fixtures, corpora, documents.
set -eu
cd "$(dirname "$0")/.."

count() {
  # $@: git pathspecs
  git ls-files -- "$@" | grep -E '(\.(cpp|h|cmake|proto)|CMakeLists\.txt)$' |
    xargs -r cat | grep -cv '^[[:space:]]*$' || true
}

product=$(count configurator qvrcs proto CMakeLists.txt)
tools=$(count tools examples)
bench=$(count bench)
tests=$(count tests)
fuzz=$(count fuzz)
total=$((product + tools + bench + tests + fuzz))
printf 'product (configurator, qvrcs, proto)  %6d\n' "$product"
printf 'tools (tools, examples)               %6d\n' "$tools"
printf 'benchmarks                            %6d\n' "$bench"
printf 'tests                                 %6d\n' "$tests"
printf 'fuzz harnesses                        %6d\n' "$fuzz"
printf 'tests + fuzz share                    %5d%%  (of %d)\n' $(((tests + fuzz) * 100 / total)) "$total"
