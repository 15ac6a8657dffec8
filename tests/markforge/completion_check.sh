#!/bin/bash
# Drives markforge's bash completion as bash would, with Debian's
# bash-completion loaded (the completion uses its helpers): sets the command
# line, calls _markforge, and compares COMPREPLY.
# Usage: completion_check.sh <completion/markforge>
set -u
source /usr/share/bash-completion/bash_completion || exit 1
source "$1" || exit 1

source "$(dirname "$0")/../support/completionHarness.sh"
COMPLETION_FUNCTION=_markforge
completion_folder keys/ sigs/ zImage keygen.so dev.pem req.json

expect "--help --version attach build extract info keygen resign verify" markforge ""
expect "build" markforge bu
expect "--help --json --keyring --verbose" markforge info zImage --
expect "keys" markforge info zImage --keyring k
expect "--help --json --key --keyring --require-table --verbose" markforge verify zImage --
expect "dev.pem" markforge verify zImage --key d
expect "--component --header-signature --help --output --payload --verbose" markforge extract zImage --
expect "" markforge extract zImage --component ""
expect "zImage" markforge extract z
expect "--hash --header-only --help --helper-timeout" markforge build --h
expect "development offline production" markforge build --mode ""
expect "sha256 sha384 sha512" markforge build --hash ""
expect "2048 3072 4096" markforge keygen --bits ""
expect "--bits --help --output --public-out --verbose" markforge keygen ""
expect "keys" markforge build --key-dir k
expect "keygen.so keys" markforge build --plugin key
expect "kernel=zImage" markforge build kernel=z
expect "dev.pem" markforge build --verify-key d
expect "" markforge build --key ""
expect "--requests" markforge build --req
expect "--signing-helper" markforge resign image --sig
expect "--help --helper-timeout" markforge resign image --he
expect "req.json" markforge attach zImage --requests r
expect "keys sigs" markforge attach zImage --signatures ""
expect "--help --output --public-key --requests --signatures --verbose" markforge attach zImage --
expect "dev.pem" markforge resign zImage --public-key d
expect "zImage" markforge resign z

completion_result
