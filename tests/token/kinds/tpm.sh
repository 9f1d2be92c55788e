# A TPM 2.0 through tpm2-pkcs11. The TPM is swtpm, which simulates one; it makes the keys itself. Sourced
# by kind.sh.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # kind.sh reads and has the variables

makeToken()
{
    module=/usr/lib/x86_64-linux-gnu/pkcs11/libtpm2_pkcs11.so
    mkdir -p "$work/state" "$work/store"
    startTpm
    export TPM2_PKCS11_STORE=$work/store
    export TPM2_PKCS11_TCTI=swtpm:host=127.0.0.1,port=$port
    export TPM2_PKCS11_BACKEND=esysdb
    export TPM2_PKCS11_LOG_LEVEL=0
    export P11_BRIDGE_MODULE=$module
    quietly pkcs11-tool --module "$module" --slot-index 0 --init-token --label keywarden \
        --so-pin keywarden-so-0815
    quietly pkcs11-tool --module "$module" --token-label keywarden --login --login-type so \
        --so-pin keywarden-so-0815 --init-pin --pin "$pin"
    makeAuthority
    generateKey rsa
    generateKey ec
    makeLone
    writeCertificate lone
}

# startTpm: the library wants the control port beside the port of the commands. They may be in use, and
# then others are tried.
startTpm()
{
    for _ in {1..20}; do
        port=$((20000 + 2 * (RANDOM % 6000)))
        rm -f "$work/tpm.pid"
        serve "$work/tpm.log" swtpm socket --tpm2 --tpmstate "dir=$work/state" \
            --server "type=tcp,port=$port,bindaddr=127.0.0.1" \
            --ctrl "type=tcp,port=$((port + 1)),bindaddr=127.0.0.1" \
            --flags not-need-init,startup-clear --pid "file=$work/tpm.pid"
        ! tpmIsReady || return 0
    done
    cat "$work/tpm.log" >&2
    return 1
}

tpmIsReady()
{
    while kill -0 "$server" 2>/dev/null; do
        [ ! -s "$work/tpm.pid" ] || return 0
        sleep 0.02
    done
    return 1
}
