# SoftHSM2. Sourced by kind.sh.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # kind.sh reads and has the variables

makeToken()
{
    makeSoftHsm
    export P11_BRIDGE_MODULE=$module
}
