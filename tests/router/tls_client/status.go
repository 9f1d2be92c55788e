package main

import "fmt"

// status is a SECURITY_STATUS of CNG.
type status uint32

var statusTexts = map[status]string{
	0x8009000D: "the token has no such key",
	0x80090016: "the provider has no such key",
	0x80090022: "the PIN dialog cannot be shown",
	0x8009002D: "the provider failed",
	0x80090036: "the PIN dialog was cancelled",
	0x8010006B: "the token refused the PIN",
	0x8010006C: "the PIN is blocked",
}

func (s status) Error() string {
	text, known := statusTexts[s]
	if !known {
		text = "CNG failed"
	}
	return fmt.Sprintf("%s (0x%08X)", text, uint32(s))
}
