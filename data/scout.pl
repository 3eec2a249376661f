# The scout: a first look at the source host before anything is deployed there.
#
# It is never stored on the source host: the destination feeds it to `perl` on standard input
# (behind the sudo password line when it runs through sudo, which sudo consumes), so it must not
# read standard input itself. It prints one XML document on standard output: the host's name,
# operating system and kernel, the perl that runs it, free disk space, the web and mail
# directories it finds, and whether sudo, tar and gzip are there. Core perl only.
use strict;
use warnings;
use POSIX ();
use Sys::Hostname ();

sub esc {
    my ($text) = @_;
    $text = '' unless defined $text;
    $text =~ s/&/&amp;/g;
    $text =~ s/</&lt;/g;
    $text =~ s/>/&gt;/g;
    $text =~ s/"/&quot;/g;
    $text =~ s/[\x00-\x08\x0B\x0C\x0E-\x1F]/?/g;
    return $text;
}

sub element {
    my ($name, $attributes, $content) = @_;
    my $text = "<$name";
    my @pairs = @$attributes;
    while (my ($key, $value) = splice(@pairs, 0, 2)) {
        $text .= sprintf(' %s="%s"', $key, esc($value)) if defined $value;
    }
    return defined $content ? "$text>" . esc($content) . "</$name>" : "$text/>";
}

sub program {
    my ($name) = @_;
    my @dirs = (split(/:/, $ENV{PATH} || ''), qw(/usr/local/sbin /usr/local/bin /usr/sbin /usr/bin /sbin /bin));
    for my $dir (@dirs) {
        return "$dir/$name" if $dir ne '' && -f "$dir/$name" && -x _;
    }
    return undef;
}

# The distribution's own name for itself, when it says.
sub distribution {
    if (open(my $in, '<', '/etc/os-release')) {
        my %release;
        while (<$in>) {
            $release{$1} = $2 if /^([A-Z_]+)="?(.*?)"?\s*$/;
        }
        close($in);
        return $release{PRETTY_NAME} if defined $release{PRETTY_NAME};
    }
    for my $file (qw(/etc/redhat-release /etc/debian_version)) {
        next unless open(my $in, '<', $file);
        my $line = <$in>;
        close($in);
        chomp($line) if defined $line;
        return $line;
    }
    return undef;
}

# Total and free kilobytes of the file system holding $path, through POSIX df.
sub disk {
    my ($path) = @_;
    my $df = program('df') or return ();
    open(my $in, '-|', $df, '-P', '-k', $path) or return ();
    my @lines = <$in>;
    close($in);
    return () unless @lines >= 2;
    my @fields = split(/\s+/, $lines[-1]);
    return () unless @fields >= 6 && $fields[1] =~ /^\d+$/;
    return (total => $fields[1], free => $fields[3], mount => $fields[5]);
}

sub entries {
    my ($dir) = @_;
    opendir(my $dh, $dir) or return undef;
    my $count = grep { !/^\.\.?$/ } readdir($dh);
    closedir($dh);
    return $count;
}

my ($sysname, $nodename, $release, $version, $machine) = POSIX::uname();
my @out = (qq(<?xml version="1.0" encoding="UTF-8"?>), '<scout version="1">');
push @out, '  ' . element('host', [ name => Sys::Hostname::hostname() ]);
push @out, '  ' . element('os', [ name => $sysname, machine => $machine, distribution => distribution() ]);
push @out, '  ' . element('kernel', [ release => $release ], $version);
push @out, '  ' . element('perl', [ version => sprintf('%vd', $^V), path => $^X ]);
push @out, '  ' . element('user', [ uid => $<, euid => $> , name => scalar(getpwuid($>)) ]);

my %seen;
for my $path ('/', '/var', '/home', '/tmp') {
    my %space = disk($path) or next;
    next if $seen{ $space{mount} }++;
    push @out, '  ' . element('disk', [ path => $path, mount => $space{mount},
        'total-kb' => $space{total}, 'free-kb' => $space{free} ]);
}

my %directories = (
    web => [qw(/var/www/vhosts /var/www /srv/www /home/httpd/vhosts /usr/local/apache/htdocs)],
    mail => [qw(/var/qmail/mailnames /var/vmail /home/vmail /var/mail /var/spool/mail)],
);
for my $kind (qw(web mail)) {
    for my $dir (@{ $directories{$kind} }) {
        next unless -d $dir;
        push @out, '  ' . element('directory', [ kind => $kind, entries => entries($dir) ], $dir);
    }
}

for my $tool (qw(sudo tar gzip rsync)) {
    my $path = program($tool);
    push @out, '  ' . element('tool', [ name => $tool, present => $path ? 'yes' : 'no', path => $path ]);
}
push @out, '</scout>';
print join("\n", @out), "\n";
exit 0;
