"""The one world of demonstration, benchmarks and system tests: network, gateway, daemon, controllers, traffic."""
