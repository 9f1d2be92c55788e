module norvanta.example/keywarden/tls_client

go 1.19
