#!/bin/bash
# Drives recaster's bash completion as bash would: sets COMP_WORDS and
# COMP_CWORD for a command line, calls _recaster, and compares COMPREPLY.
# Usage: completion_check.sh <completion/recaster>
set -u
script=$1
source "$script" || exit 1

source "$(dirname "$0")/../support/completionHarness.sh"
COMPLETION_FUNCTION=_recaster
completion_folder keys/ key.pem key.markforge other.txt

expect "--convertkey --convertsig --help --version" recaster ""
expect "--convertkey --convertsig" recaster --conv
expect "--iformat --input --oformat --output" recaster --convertkey ""
expect "--iformat --oformat --output" recaster --convertkey -i key.pem ""
expect "--iformat" recaster --convertsig --input a --output b --i
expect "markforge pem raw" recaster --convertkey -I ""
expect "markforge pem raw" recaster --convertkey --oformat ""
expect "der markforge raw" recaster --convertsig -I ""
expect "der" recaster --convertsig --iformat d
expect "markforge pem raw" recaster --convertsig -O ""
expect "key.markforge key.pem keys" recaster --convertkey -i key
expect "other.txt" recaster --convertkey -o o
expect "" recaster -k ""
expect "" recaster --convertkey -I x

completion_result
