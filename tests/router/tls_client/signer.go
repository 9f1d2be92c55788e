package main

import (
	"crypto"
	"crypto/ecdsa"
	"crypto/rsa"
	"encoding/asn1"
	"fmt"
	"io"
	"math/big"
	"syscall"
	"unsafe"
)

// Paddings of bcrypt.h.
const (
	padPKCS1 = 2
	padPSS   = 8
)

var (
	ncrypt     = syscall.NewLazyDLL("ncrypt.dll")
	signHash   = ncrypt.NewProc("NCryptSignHash")
	freeObject = ncrypt.NewProc("NCryptFreeObject")
)

var hashNames = map[crypto.Hash]string{
	crypto.SHA1:   "SHA1",
	crypto.SHA256: "SHA256",
	crypto.SHA384: "SHA384",
	crypto.SHA512: "SHA512",
}

// BCRYPT_PKCS1_PADDING_INFO and, with the length of the salt, BCRYPT_PSS_PADDING_INFO.
type paddingInfo struct {
	algorithm  *uint16
	saltLength uint32
}

// storeKey is a certificate and the handle of its private key. It implements crypto.Signer.
type storeKey struct {
	der    []byte
	public crypto.PublicKey
	handle uintptr
}

func (key *storeKey) close() {
	freeObject.Call(key.handle)
}

func (key *storeKey) Public() crypto.PublicKey {
	return key.public
}

// Sign signs a digest. A signature of an elliptic curve is converted to the form that TLS has.
func (key *storeKey) Sign(_ io.Reader, digest []byte, opts crypto.SignerOpts) ([]byte, error) {
	info, flags, err := key.padding(opts)
	if err != nil {
		return nil, err
	}
	signature, err := key.call(info, digest, flags)
	if err != nil {
		return nil, fmt.Errorf("signing through CNG: %w", err)
	}
	if _, isEC := key.public.(*ecdsa.PublicKey); !isEC {
		return signature, nil
	}
	half := len(signature) / 2
	return asn1.Marshal(struct{ R, S *big.Int }{
		new(big.Int).SetBytes(signature[:half]),
		new(big.Int).SetBytes(signature[half:]),
	})
}

func (key *storeKey) padding(opts crypto.SignerOpts) (*paddingInfo, uintptr, error) {
	if _, isEC := key.public.(*ecdsa.PublicKey); isEC {
		return nil, 0, nil
	}
	name, err := syscall.UTF16PtrFromString(hashNames[opts.HashFunc()])
	if err != nil {
		return nil, 0, err
	}
	info := &paddingInfo{algorithm: name}
	pss, isPSS := opts.(*rsa.PSSOptions)
	if !isPSS {
		return info, padPKCS1, nil
	}
	info.saltLength = uint32(pss.SaltLength)
	if pss.SaltLength == rsa.PSSSaltLengthEqualsHash {
		info.saltLength = uint32(opts.HashFunc().Size())
	}
	return info, padPSS, nil
}

// call asks for the length of the signature first, as most programs do.
func (key *storeKey) call(info *paddingInfo, digest []byte, flags uintptr) ([]byte, error) {
	var length uint32
	sign := func(output unsafe.Pointer, room uint32) error {
		result, _, _ := signHash.Call(key.handle, uintptr(unsafe.Pointer(info)),
			uintptr(unsafe.Pointer(&digest[0])), uintptr(len(digest)), uintptr(output), uintptr(room),
			uintptr(unsafe.Pointer(&length)), flags)
		if uint32(result) != 0 {
			return status(uint32(result))
		}
		return nil
	}
	if err := sign(nil, 0); err != nil {
		return nil, err
	}
	signature := make([]byte, length)
	if err := sign(unsafe.Pointer(&signature[0]), length); err != nil {
		return nil, err
	}
	return signature[:length], nil
}
