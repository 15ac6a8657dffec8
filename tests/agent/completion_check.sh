#!/bin/bash
# Drives markforge-agent's bash completion as bash would, with Debian's
# bash-completion loaded (the completion uses its helpers).
# Usage: completion_check.sh <completion/markforge-agent>
set -u
source /usr/share/bash-completion/bash_completion || exit 1
source "$1" || exit 1
source "$(dirname "$0")/../support/completionHarness.sh"
COMPLETION_FUNCTION=_markforge_agent
completion_folder keys/ keys/release.markforge keys/dev.pem keys/notes.txt libsofthsm2.so pin

expect "--check" markforge-agent --ch
expect "--verify-audit --version" markforge-agent --ve
expect "--key-dir" markforge-agent --key-
expect "keys" markforge-agent --key-dir k
expect "keys libsofthsm2.so" markforge-agent --pkcs11-module ""
expect "- keys libsofthsm2.so pin" markforge-agent --pin-file ""
expect "dev release" markforge-agent --key-dir keys --allow-key ""
expect "root" markforge-agent --allow-user roo
expect "" markforge-agent --port ""
expect "--pkcs11-uri" markforge-agent --pkcs11-u
expect "pkcs11:" markforge-agent --pkcs11-uri ""
expect "--metrics-file --metrics-interval" markforge-agent --met
expect "keys libsofthsm2.so pin" markforge-agent --metrics-file ""

completion_result
