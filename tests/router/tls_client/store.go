package main

import (
	"crypto/x509"
	"fmt"
	"syscall"
	"unsafe"
)

// Flags and values of wincrypt.h.
const (
	acquireOnlyNCrypt = 0x40000
	ncryptKeySpec     = 0xFFFFFFFF
)

// The DLL that gives the private key of a certificate. Where the system's own does not route to other
// providers, -acquire names another one.
var acquireLibrary = "crypt32.dll"

// certificateFromStore finds the certificate with this common name in "My" and opens its private key.
func certificateFromStore(subject string) (*storeKey, error) {
	name, err := syscall.UTF16PtrFromString("MY")
	if err != nil {
		return nil, err
	}
	store, err := syscall.CertOpenSystemStore(0, name)
	if err != nil {
		return nil, fmt.Errorf("the store \"My\" does not open: %w", err)
	}
	defer syscall.CertCloseStore(store, 0)
	// Each call frees the context that it is given.
	var context *syscall.CertContext
	for {
		context, err = syscall.CertEnumCertificatesInStore(store, context)
		if context == nil {
			return nil, fmt.Errorf("the store \"My\" has no certificate of %q (%v)", subject, err)
		}
		der := append([]byte{}, unsafe.Slice(context.EncodedCert, context.Length)...)
		certificate, err := x509.ParseCertificate(der)
		if err != nil || certificate.Subject.CommonName != subject {
			continue
		}
		handle, err := acquireKey(context)
		syscall.CertFreeCertificateContext(context)
		if err != nil {
			return nil, err
		}
		return &storeKey{der: der, public: certificate.PublicKey, handle: handle}, nil
	}
}

// acquireKey opens the key that the certificate's provider information names. The caller frees it.
func acquireKey(context *syscall.CertContext) (uintptr, error) {
	acquire := syscall.NewLazyDLL(acquireLibrary).NewProc("CryptAcquireCertificatePrivateKey")
	if err := acquire.Find(); err != nil {
		return 0, err
	}
	var handle uintptr
	var keySpec, callerFrees uint32
	done, _, err := acquire.Call(uintptr(unsafe.Pointer(context)), acquireOnlyNCrypt, 0,
		uintptr(unsafe.Pointer(&handle)), uintptr(unsafe.Pointer(&keySpec)),
		uintptr(unsafe.Pointer(&callerFrees)))
	if done == 0 {
		return 0, fmt.Errorf("the private key cannot be acquired: %w", statusOf(err))
	}
	if keySpec != ncryptKeySpec || callerFrees == 0 {
		return 0, fmt.Errorf("the private key is not a key of CNG that the caller frees")
	}
	return handle, nil
}

// statusOf makes a status of the last error of a function that returns true or false.
func statusOf(err error) error {
	if number, ok := err.(syscall.Errno); ok {
		return status(number)
	}
	return err
}
