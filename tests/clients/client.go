// One connection with what the second argument offers: "min=1.2,max=1.3,curves=P256,suite=0x2f".
package main

import (
	"crypto/tls"
	"os"
	"strconv"
	"strings"
)

var versions = map[string]uint16{"1.0": tls.VersionTLS10, "1.1": tls.VersionTLS11,
	"1.2": tls.VersionTLS12, "1.3": tls.VersionTLS13}
var curves = map[string]tls.CurveID{"X25519": tls.X25519, "P256": tls.CurveP256, "P384": tls.CurveP384}

func main() {
	config := &tls.Config{InsecureSkipVerify: true}
	for _, word := range strings.Split(os.Args[2], ",") {
		pair := strings.SplitN(word, "=", 2)
		switch pair[0] {
		case "min":
			config.MinVersion = versions[pair[1]]
		case "max":
			config.MaxVersion = versions[pair[1]]
		case "curves":
			config.CurvePreferences = append(config.CurvePreferences, curves[pair[1]])
		case "suite":
			number, _ := strconv.ParseUint(pair[1], 0, 16)
			config.CipherSuites = append(config.CipherSuites, uint16(number))
		case "name":
			config.ServerName = pair[1]
		}
	}
	connection, err := tls.Dial("tcp", "127.0.0.1:"+os.Args[1], config)
	if err == nil {
		connection.Write([]byte("GET / HTTP/1.0\r\n\r\n"))
		connection.Read(make([]byte, 10))
		connection.Close()
	}
}
