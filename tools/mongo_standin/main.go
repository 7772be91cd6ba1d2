// mongo_standin serves a MongoDB-wire-compatible database on a loopback port,
// for local runs and tests. It embeds FerretDB with its SQLite backend.
//
// It prints "ready <mongodb-uri>" on stdout once the port accepts connections,
// and exits cleanly on SIGINT or SIGTERM.
package main

import (
	"context"
	"flag"
	"fmt"
	"log/slog"
	"os"
	"os/signal"
	"path/filepath"
	"syscall"

	"github.com/FerretDB/FerretDB/ferretdb"
)

func main() {
	listen := flag.String("listen", "127.0.0.1:27017", "TCP address to listen on (loopback; port 0 picks a free one)")
	dataDir := flag.String("data-dir", "", "directory of the SQLite databases (created if missing)")
	memory := flag.Bool("memory", false, "keep the data in memory only")
	logLevel := flag.String("log-level", "warn", "log level: debug, info, warn or error")
	flag.Parse()

	// Telemetry is off in the embedded build; these keep it off should a
	// dependency ever look at the environment.
	os.Setenv("FERRETDB_TELEMETRY", "disable")
	os.Setenv("DO_NOT_TRACK", "1")

	var level slog.Level
	if err := level.UnmarshalText([]byte(*logLevel)); err != nil {
		fail("bad -log-level: %v", err)
	}
	logger := slog.New(slog.NewTextHandler(os.Stderr, &slog.HandlerOptions{Level: level}))

	var sqliteURL string
	switch {
	case *memory:
		sqliteURL = "file:./?mode=memory"
	case *dataDir != "":
		dir, err := filepath.Abs(*dataDir)
		if err != nil {
			fail("bad -data-dir: %v", err)
		}
		if err := os.MkdirAll(dir, 0o755); err != nil {
			fail("cannot create data directory: %v", err)
		}
		sqliteURL = "file:" + dir + "/"
	default:
		fail("either -data-dir or -memory is required")
	}

	f, err := ferretdb.New(&ferretdb.Config{
		Listener:  ferretdb.ListenerConfig{TCP: *listen},
		Logger:    logger,
		Handler:   "sqlite",
		SQLiteURL: sqliteURL,
	})
	if err != nil {
		fail("%v", err)
	}

	ctx, stop := signal.NotifyContext(context.Background(), syscall.SIGINT, syscall.SIGTERM)
	defer stop()

	done := make(chan error, 1)
	go func() { done <- f.Run(ctx) }()

	// The listener is bound by New, so the port already accepts connections.
	fmt.Printf("ready %s\n", f.MongoDBURI())
	os.Stdout.Sync()

	if err := <-done; err != nil && ctx.Err() == nil {
		fail("%v", err)
	}
}

func fail(format string, args ...any) {
	fmt.Fprintf(os.Stderr, "mongo_standin: "+format+"\n", args...)
	os.Exit(1)
}
