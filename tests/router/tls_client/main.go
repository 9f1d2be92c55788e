// The program tls_client connects to a TLS server with a certificate of the user's store "My", as any
// program with client certificates does. The private key stays with its provider: the handshake is signed
// through ncrypt.dll. mutual_tls.sh runs it.
//
// It needs nothing of the tests, and runs on Windows as it is.
package main

import (
	"bufio"
	"crypto/tls"
	"crypto/x509"
	"flag"
	"fmt"
	"os"
	"strings"
	"time"
)

// A person needs some time for the PIN dialog.
const patience = time.Minute

type options struct {
	server      string
	authority   string
	subject     string
	version     string
	message     string
	connections int
}

func main() {
	var chosen options
	flag.StringVar(&chosen.server, "server", "", "`HOST:PORT` of the server")
	flag.StringVar(&chosen.authority, "ca", "", "PEM `FILE` with the certificate that the server's chain ends at")
	flag.StringVar(&chosen.subject, "subject", "", "common `NAME` of the certificate in \"My\"")
	flag.StringVar(&chosen.version, "tls", "1.3", "`VERSION` of TLS: 1.2 or 1.3")
	flag.StringVar(&chosen.message, "message", "", "`LINE` to send")
	flag.IntVar(&chosen.connections, "connections", 1, "`NUMBER` of connections, one after another")
	flag.StringVar(&acquireLibrary, "acquire", acquireLibrary,
		"`DLL` with CryptAcquireCertificatePrivateKey")
	flag.Parse()
	if err := run(chosen); err != nil {
		fmt.Fprintln(os.Stderr, "tls_client:", err)
		os.Exit(1)
	}
}

func run(chosen options) error {
	configuration, err := configure(chosen)
	if err != nil {
		return err
	}
	certificate, err := certificateFromStore(chosen.subject)
	if err != nil {
		return err
	}
	defer certificate.close()
	// The program asks for no choice among several certificates, so the server's wishes are ignored.
	configuration.GetClientCertificate = func(*tls.CertificateRequestInfo) (*tls.Certificate, error) {
		return &tls.Certificate{Certificate: [][]byte{certificate.der}, PrivateKey: certificate}, nil
	}
	for i := 0; i < chosen.connections; i++ {
		if err := exchange(chosen, configuration); err != nil {
			return err
		}
	}
	return nil
}

func configure(chosen options) (*tls.Config, error) {
	versions := map[string]uint16{"1.2": tls.VersionTLS12, "1.3": tls.VersionTLS13}
	version, known := versions[chosen.version]
	if !known {
		return nil, fmt.Errorf("TLS %q is not known", chosen.version)
	}
	pem, err := os.ReadFile(chosen.authority)
	if err != nil {
		return nil, err
	}
	roots := x509.NewCertPool()
	if !roots.AppendCertsFromPEM(pem) {
		return nil, fmt.Errorf("%s has no certificate", chosen.authority)
	}
	return &tls.Config{RootCAs: roots, MinVersion: version, MaxVersion: version}, nil
}

// exchange connects, sends the line and prints the answer.
func exchange(chosen options, configuration *tls.Config) error {
	connection, err := tls.Dial("tcp", chosen.server, configuration)
	if err != nil {
		return fmt.Errorf("the handshake failed: %w", err)
	}
	defer connection.Close()
	if err := connection.SetDeadline(time.Now().Add(patience)); err != nil {
		return err
	}
	if _, err := fmt.Fprintln(connection, chosen.message); err != nil {
		return fmt.Errorf("sending failed: %w", err)
	}
	answer, err := bufio.NewReader(connection).ReadString('\n')
	if err != nil {
		return fmt.Errorf("no answer came: %w", err)
	}
	fmt.Println("answer:", strings.TrimSpace(answer))
	return nil
}
