#!/usr/bin/env bash
# The example component runs in a process of its own. Its cast is relayed and announced, its message is shown.
. "$(dirname "$0")/../e2e/service.sh"
start_service
start_watch

"$bin/example_component" 239.77.0.1 4000 239.77.0.2 5000 "From a component"
within 2 grep -q 'BYPASS OnAir' serve.log
carries 239.77.0.2:5000 239.77.0.1:4000
within 2 grep -q '"kind":"on-air".*"epg":42,.*"address":"239.77.0.2","port":5000,"crcOk":true' heard
within 3 grep -q '"kind":"message".*"text":"From a component"' heard

refused 64 usage "$bin/example_component" 239.77.0.1 four 239.77.0.2 5000 text
end_service TERM
refused 1 "cast request was not taken" "$bin/example_component" 239.77.0.1 4000 239.77.0.2 5000 text
