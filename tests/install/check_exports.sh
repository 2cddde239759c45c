#!/usr/bin/env bash
# The shared library exports exactly the functions its public headers declare
# with TARN_API: nothing declared is hidden (a caller would fail to link) and
# nothing else leaks. Names outside the tarn/tarnd/tarnm/omni prefixes are
# allowed only for the few helpers known by their historical names.
set -euo pipefail
lib=$1 include_dir=$2
unprefixed_allowed="calculateGreatestCommonDivisor overflowsInt32 vc_nal_bsr_flush"

declared=$("$(dirname "$0")/api_names.sh" "$include_dir")
exported=$(nm -D --defined-only "$lib" | awk '{print $NF}' | sort -u)

status=0
hidden=$(comm -23 <(echo "$declared") <(echo "$exported"))
extra=$(comm -13 <(echo "$declared") <(echo "$exported"))
if [ -n "$hidden" ]; then echo "declared in the headers but not exported:"; echo "$hidden"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not declared in the headers:"; echo "$extra"; status=1; fi
for name in $(echo "$exported" | grep -v -E '^(tarn|tarnd|tarnm|omni)_' || true); do
  case " $unprefixed_allowed " in
    *" $name "*) ;;
    *) echo "exported without a public prefix: $name"; status=1 ;;
  esac
done
[ "$status" -eq 0 ] && echo "$(echo "$exported" | wc -l) exported symbols, exactly the declared API"
exit "$status"
